#pragma once

#include <fmt/format.h>

#include <chrono>
#include <stdexcept>
#include <string>

#include "tools/common/output.h"
#include "tools/common/stopsignals.h"
#include "tools/harness/station.h"

/// Prints what is done and what is checked. One thread.
class Narrator {
 public:
  void Say(const std::string& text) { mOutput.Write(text); }
  void Title(const std::string& text) { Say("\n" + Coloured(1, text)); }
  /// What is done now.
  void Act(const std::string& text) {
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - mStart;
    Say(Coloured(90, fmt::format("{:5.1f} s", time.count())) + "  " + text);
  }
  /// A check that held.
  void Saw(const std::string& text) {
    ++mChecks;
    Say("          " + Coloured(32, "ok") + "  " + text);
  }
  void Failed(const std::string& text) { Say("      " + Coloured(31, "FAILED") + "  " + text); }
  void AllHeld() { Say("\n" + Coloured(32, fmt::format("All {} checks held.", mChecks))); }

 private:
  std::string Coloured(int colour, const std::string& text) const {
    return mOutput.HasColour() ? fmt::format("\x1b[{}m{}\x1b[0m", colour, text) : text;
  }

  LineOutput mOutput;
  const std::chrono::steady_clock::time_point mStart = std::chrono::steady_clock::now();
  unsigned mChecks = 0;
};

/// The daemon did not do what the story expects.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A signal asked the program to end.
class Interrupted : public std::exception {};

/// Plays a day of a station, from the daemon's start to its end, or only the start, until it is enabled.
/// Every step says what it does and checks what the station sees. Throws Failure or Interrupted. One thread.
void Play(Station& station, Narrator& narrator, const StopSignals& signals, bool onlyStart);
