#pragma once

#include <stdexcept>

#include "tools/common/stopsignals.h"
#include "tools/demo/narrator.h"
#include "tools/harness/station.h"

/// The daemon did not do what the story expects.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A signal asked the program to end.
class Interrupted : public std::exception {};

/// Plays a day of a station. Every step says what it does and checks what the station sees. Throws Failure or
/// Interrupted. One thread.
///
/// PlayStart starts the daemon and enables it. PlayDay plays the whole day, from the start to the daemon's
/// end.
void PlayStart(Station& station, Narrator& narrator, const StopSignals& signals);
void PlayDay(Station& station, Narrator& narrator, const StopSignals& signals);
