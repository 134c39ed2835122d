#include <fmt/format.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "cardsubject.h"
#include "measures.h"
#include "measuring.h"

namespace bench {

namespace {

constexpr int kWarmUps = 10;
constexpr std::chrono::milliseconds kGap(30);

struct Calls {
  double all = 0;
  double futex = 0;
};

/// Reads strace's summary: "% time  seconds  usecs/call  calls  [errors]  syscall".
Calls ReadSummary(const std::string& file) {
  Calls calls;
  std::ifstream summary(file);
  for (std::string line; std::getline(summary, line);) {
    std::istringstream words(line);
    double share = 0;
    double seconds = 0;
    double each = 0;
    double count = 0;
    std::string rest;
    if (words >> share >> seconds >> each >> count && std::getline(words, rest)) {
      const std::string name = rest.substr(rest.find_last_of(' ') + 1);
      if (name == "total") {
        calls.all = count;
      } else if (name == "futex") {
        calls.futex = count;
      }
    }
  }
  return calls;
}

/// The system calls of a subject per card.
Calls CountCalls(const std::string& daemon, int cards) {
  CardSubject subject(daemon);
  const TemporaryFolder folder;
  const auto tap = [&](int first, int count) {
    for (int card = first; card < first + count; ++card) {
      subject.Tap(fmt::format("{:08X}", 0x20000000 + card * 7919));
      std::this_thread::sleep_for(kGap);
    }
  };
  tap(0, kWarmUps);
  Process tracer({"/usr/bin/strace", "-f", "-c", "-o", folder.Path("calls"), "-p",
                  std::to_string(subject.Program().GetPid())},
                 {}, folder.Path("output"), folder.Path("errors"));
  const bool isAttached = Eventually([&] {
    return ReadFile(folder.Path("errors")).find(" attached") != std::string::npos ||
           tracer.Wait(std::chrono::seconds(0)).has_value();
  });
  if (!isAttached || tracer.IsOver()) {
    throw std::runtime_error("strace does not trace: " + ReadFile(folder.Path("errors")));
  }
  tap(kWarmUps, cards);
  tracer.Signal(SIGINT);
  tracer.Wait();
  const Calls calls = ReadSummary(folder.Path("calls"));
  if (calls.all == 0) {
    throw std::runtime_error("strace counted nothing: " + ReadFile(folder.Path("calls")));
  }
  return {calls.all / cards, calls.futex / cards};
}

}  // namespace

Run MeasureSystemCalls(const Plan& plan) {
  const int cards = plan.Count(100, 3);
  const Calls ours = CountCalls(Daemon(), cards);
  Run run;
  const auto add = [&](const char* peer, const std::string& daemon, double wanted) {
    const Calls theirs = CountCalls(daemon, cards);
    run.rows.push_back({"card: system calls", "", ours.all, peer, theirs.all, wanted});
    run.rows.push_back({"card: futex calls", "", ours.futex, peer, theirs.futex});
  };
  add("the same trips", "", 1.3);
  if (!plan.before.empty()) {
    add("rfidd before", plan.before, 0);
  }
  return run;
}

}  // namespace bench
