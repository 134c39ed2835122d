#include <gmock/gmock.h>

#include <compare>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// A model of how CNfcNetlink's two threads share the reader, small enough for every interleaving of their
/// steps to be visited: the machine's thread enables, disables and recovers at will, the monitor's thread
/// reacts to tags, tags come whenever the kernel polls, and commands fail. Each step is what the code does
/// between two points at which the other thread can come in; what it does with the exchange locked is one.
namespace {

/// The code as it is, and what it must not become.
enum class EVariant {
  AsBuilt,
  RestartsWhetherWantedOrNot,
  LooksBeforeItLocks,
  DoesNotWaitForTheMonitorToListen,
  StopsWithoutWaking,
  JoinsWithTheExchangeLocked,
  DoesNotReportFailures
};

enum class ELock : uint8_t { Free, Machine, Monitor };
enum class ERecovery : uint8_t { No, Closing, Reopened };

struct State {
  std::string_view machine = "Disabled";  ///< what this thread does next
  std::string_view monitor = "Gone";
  ELock exchange = ELock::Free;
  ERecovery recovery = ERecovery::No;
  bool wanted = false;
  bool stop = true;
  bool wake = false;
  bool listening = false;  ///< the monitor has set itself up, or has given up
  bool event = false;      ///< waits at the event socket
  bool error = false;      ///< waits in the machine's queue
  bool polls = false;      ///< the kernel does
  bool powered = false;
  bool off = true;  ///< StopPolling has returned, and no start has begun since
  uint8_t enables = 3;
  uint8_t taps = 4;
  uint8_t failures = 3;

  auto operator<=>(const State&) const = default;  // NOLINT(modernize-use-nullptr): the 0 that it is made of
};

class Explorer {
 public:
  explicit Explorer(EVariant variant) : mVariant(variant) {}

  /// What is wrong in the first state that is wrong, and the steps that lead there; empty when none is.
  std::string FindFault() {
    std::deque<const State*> open{Visit({}, nullptr)};
    while (!open.empty()) {
      const State& state = *open.front();
      open.pop_front();
      mNext.clear();
      MoveMachine(state, state);
      MoveMonitor(state, state);
      if (const auto fault = FaultOf(state, mNext.empty()); !fault.empty()) {
        return fault + " after" + PathTo(state);
      }
      MoveTag(state, state);
      for (const auto& next : mNext) {
        if (const auto* visited = Visit(next, &state)) {
          open.push_back(visited);
        }
      }
    }
    return "";
  }

  size_t States() const { return mFrom.size(); }

 private:
  static std::string FaultOf(const State& s, bool stuck) {
    if (s.off && (s.polls || s.powered)) {
      return "not off";
    }
    const bool idle = s.monitor == "Ended" || (s.monitor == "Select" && !s.event && !s.wake);
    if (s.machine == "Enabled" && idle && !s.polls && !s.error) {
      return "deaf";
    }
    // Every loop uses something up, so a thread that can always go on comes to an end.
    return stuck && (s.machine != "Disabled" || s.monitor != "Gone" || s.enables > 0) ? "stuck" : "";
  }

  const State* Visit(const State& state, const State* from) {
    const auto [place, isNew] = mFrom.try_emplace(state, from);
    return isNew ? &place->first : nullptr;
  }

  std::string PathTo(const State& s) const {
    const State* from = mFrom.at(s);
    return (from == nullptr ? "" : PathTo(*from)) + "\n" + std::string(s.machine) + " | " +
           std::string(s.monitor) + (s.polls ? " polls" : "") + (s.error ? " error" : "");
  }

  void MoveTag(const State& s, State n) {
    if (s.polls && s.taps > 0) {
      --n.taps;
      n.polls = false;  // a find ends the kernel's polling
      n.event = s.monitor != "SetUp" && s.monitor != "Ended";
      mNext.push_back(n);
    }
  }

  void MoveMachine(const State& s, State n) {
    const auto& at = s.machine;
    const auto go = [&](std::string_view to) {
      n.machine = to;
      mNext.push_back(n);
    };
    if ((at == "Disabled" || at == "Enabled") && s.error) {
      n.error = false;
      n.recovery = ERecovery::Closing;
      go("SignalStop");
    } else if (at == "Enabled") {
      go("StopLock");
    } else if (at == "Disabled" && s.enables > 0) {
      --n.enables;
      go("Open");
    } else if (at == "Open") {
      n.stop = n.wake = n.listening = false;
      n.monitor = "SetUp";
      go(s.recovery == ERecovery::No ? "AwaitListening" : "StopLock");
    } else if (at == "AwaitListening" && s.listening && s.monitor == "Ended") {
      n.error = true;
      go("Enabled");
    } else if (at == "AwaitListening" && (s.listening || Is(EVariant::DoesNotWaitForTheMonitorToListen))) {
      n.off = false;
      go("StartLock");
    } else if ((at == "StartLock" || at == "StopLock") && s.exchange == ELock::Free) {
      n.exchange = ELock::Machine;
      n.wanted = s.wanted && at == "StartLock";
      go(at == "StartLock" ? "StartPoll" : "StopPoll");
    } else if (at == "StartPoll") {
      n.powered = true;
      n.exchange = ELock::Free;
      if (s.failures > 0) {
        --n.failures;
        n.error = true;
        go("Enabled");
        n.failures = s.failures;
        n.error = s.error;
      }
      n.polls = n.wanted = true;
      go("Enabled");
    } else if (at == "StopPoll") {
      n.polls = n.powered = false;
      n.off = true;
      n.exchange = ELock::Free;
      go("SignalStop");
    } else if (at == "SignalStop" &&
               !(Is(EVariant::JoinsWithTheExchangeLocked) && s.exchange != ELock::Free)) {
      n.stop = true;
      n.wake = !Is(EVariant::StopsWithoutWaking);
      n.exchange = Is(EVariant::JoinsWithTheExchangeLocked) ? ELock::Machine : s.exchange;
      go("Join");
    } else if (at == "Join" && (s.monitor == "Ended" || s.monitor == "Gone")) {
      n.monitor = "Gone";
      n.exchange = ELock::Free;
      go("Close");
    } else if (at == "Close") {  // locked, but the other thread is gone; closing ends polling, too
      n.polls = n.wanted = false;
      n.recovery = s.recovery == ERecovery::Closing ? ERecovery::Reopened : ERecovery::No;
      go(s.recovery == ERecovery::Closing ? "Open" : "Disabled");
    }
  }

  void MoveMonitor(const State& s, State n) {
    const auto& at = s.monitor;
    const auto go = [&](std::string_view to) {
      n.monitor = to;
      mNext.push_back(n);
    };
    const auto fail = [&](std::string_view to) {
      if (s.failures > 0) {
        --n.failures;
        go(to);
        n.failures = s.failures;
      }
    };
    const bool looksEarly = Is(EVariant::LooksBeforeItLocks);
    const bool mayRestart = (s.wanted && !s.stop) || Is(EVariant::RestartsWhetherWantedOrNot);
    if (at == "SetUp") {
      n.listening = true;
      fail("Ended");
      go("Top");
    } else if (at == "Top") {
      n.event = s.event && !s.stop;
      go(s.stop ? "Ended" : "Select");
    } else if (at == "Select") {
      fail("ReportAndEnd");  // receiving
      if (s.event || s.wake) {
        go("Check");
      }
    } else if (at == "Check") {
      n.event = false;
      go(s.stop ? "Ended" : s.event ? "QueryLock" : "Top");
    } else if ((at == "QueryLock" || at == "RestartLock") && s.exchange == ELock::Free) {
      n.exchange = ELock::Monitor;
      go(at == "QueryLock" ? "Query" : "RestartCheck");
    } else if (at == "Query") {  // and the target callback, which never waits for the machine
      n.exchange = ELock::Free;
      fail(s.wanted ? "Report" : "Top");
      go(!looksEarly || mayRestart ? "RestartLock" : "Top");
    } else if (at == "RestartCheck") {
      const bool restarts = looksEarly || mayRestart;
      n.exchange = restarts ? s.exchange : ELock::Free;
      go(restarts ? "RestartPoll" : "Top");
    } else if (at == "RestartPoll") {
      n.powered = true;
      n.exchange = ELock::Free;
      fail("Report");
      n.polls = n.wanted = true;
      go("Top");
    } else if (at == "Report" || at == "ReportAndEnd") {
      n.error = s.error || (!s.stop && !Is(EVariant::DoesNotReportFailures));
      n.event = s.event && at == "Report";
      go(at == "Report" ? "Top" : "Ended");
    }
  }

  bool Is(EVariant variant) const { return mVariant == variant; }

  const EVariant mVariant;
  std::map<State, const State*> mFrom;  ///< every state visited and the one before it
  std::vector<State> mNext;
};

}  // namespace

TEST(PollingModel, OffMeansOffAndNothingIsStuckOrSilentlyDeafWhateverTheOrderOfSteps) {
  Explorer explorer(EVariant::AsBuilt);
  EXPECT_EQ(explorer.FindFault(), "");
  EXPECT_GT(explorer.States(), 1000U);
}

TEST(PollingModel, TheSearchFindsTheFaultOfEveryVariantThatHasOne) {
  const std::map<EVariant, const char*> faults{
      {EVariant::RestartsWhetherWantedOrNot, "not off"},    {EVariant::LooksBeforeItLocks, "not off"},
      {EVariant::DoesNotWaitForTheMonitorToListen, "deaf"}, {EVariant::StopsWithoutWaking, "stuck"},
      {EVariant::JoinsWithTheExchangeLocked, "stuck"},      {EVariant::DoesNotReportFailures, "deaf"}};
  for (const auto& [variant, fault] : faults) {
    EXPECT_THAT(Explorer(variant).FindFault(), ::testing::StartsWith(fault)) << static_cast<int>(variant);
  }
}
