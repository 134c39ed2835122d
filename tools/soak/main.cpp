// soak: runs the daemon in a busy station for a long time, and checks that every swipe has its outcome and
// that the daemon does not grow.

#include <fmt/format.h>

#include <chrono>
#include <random>

#include "tools/common/commandline.h"
#include "tools/common/output.h"
#include "tools/common/stopsignals.h"
#include "tools/soak/soak.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kProgressPeriod(10);

std::string MinutesAndSeconds(Clock::duration time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time).count();
  return fmt::format("{:02}:{:02}", seconds / 60, seconds % 60);
}

int Run(double minutes, unsigned seed) {
  const StopSignals signals;
  LineOutput output;
  const auto duration =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::ratio<60>>(minutes));
  output.Write(fmt::format("seed {}, {}", seed, MinutesAndSeconds(duration)));
  const auto start = Clock::now();
  auto nextProgress = start + kProgressPeriod;
  Soak soak(seed);
  soak.Begin();
  while (Clock::now() < start + duration && !signals.HaveCome() && soak.Book().HasNoProblem()) {
    soak.Act();
    if (Clock::now() >= nextProgress) {
      output.Write(fmt::format("{}  {}; {}", MinutesAndSeconds(Clock::now() - start), soak.Book().Line(),
                               soak.Resources()));
      nextProgress += kProgressPeriod;
    }
  }
  soak.End();
  output.Write(fmt::format("\n{} of {} with seed {}\n\n{}\n{}", MinutesAndSeconds(Clock::now() - start),
                           MinutesAndSeconds(duration), seed, soak.Resources(), soak.Book().Report()));
  if (soak.Book().AddsUp()) {
    return 0;
  }
  PrintError("soak", "the daemon's logs are in " + soak.KeepLogs());
  return kFailureStatus;
}

int RunCommandLine(int argc, char** argv) {
  double minutes = 30;
  unsigned seed = std::random_device()();
  CLI::App app("Runs the daemon in a busy station with random events and accounts for every swipe.", "soak");
  SetUpTool(app);
  app.add_option("--minutes", minutes, "How long")->capture_default_str()->check(CLI::Range(0.01, 100000.0));
  app.add_option("--seed", seed, "Seed of the random events. Default: a random one");
  app.footer("Exit status: 0 everything adds up, 1 it does not, 2 the command line cannot be understood.");
  if (const auto status = ParseCommandLine(app, argc, argv)) {
    return *status;
  }
  return Run(minutes, seed);
}

}  // namespace

int main(int argc, char** argv) {
  return RunTool("soak", RunCommandLine, argc, argv);
}
