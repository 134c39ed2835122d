#include <dirent.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <linux/nfc.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "tests/evidence.h"
#include "tests/faults/daemoninprocess.h"

using namespace std::chrono_literals;
using namespace virtualnfc;
using State = DaemonInProcess::State;
using ::testing::Gt;
using ::testing::Le;

namespace {

size_t CountEntries(const char* folder) {
  size_t count = 0;
  DIR* entries = opendir(folder);
  while (readdir(entries) != nullptr) {
    ++count;
  }
  closedir(entries);
  return count;
}

/// Checks that no descriptor and no thread created during its lifetime is left at its end.
class Leftovers {
 public:
  ~Leftovers() {
    EXPECT_EQ(CountInterposedSockets(), 0);
    EXPECT_TRUE(Becomes([] { return CountEntries("/proc/self/fd"); }, Le(mDescriptors)));
    // A joined thread is listed for a moment longer.
    EXPECT_TRUE(Becomes([] { return CountEntries("/proc/self/task"); }, Le(mThreads)));
  }

 private:
  /// A sanitizer starts its own thread together with the first thread.
  const bool mStarted = [] {
    std::thread([] {}).join();
    return true;
  }();
  const size_t mDescriptors = CountEntries("/proc/self/fd");
  const size_t mThreads = CountEntries("/proc/self/task");
};

/// The message that a fault disturbs.
struct Exchange {
  const char* name;
  const char* rule;    ///< the command or event, and which of its occurrences
  uint8_t number = 0;  ///< of that command or event if a card triggers it
};

/// One daemon with one fault, and the outcome.
class Cell {
 public:
  explicit Cell(std::chrono::milliseconds watchPeriod) : mDaemon(watchPeriod) {}

  void Enable() {
    EXPECT_EQ(mDaemon.Enable(), State::Enabled);
    mTold = mDaemon.CountTold();
  }
  /// Holds a card to the reader until this command or event has occurred.
  void TapUntil(uint8_t number) {
    const auto had = [number](const Status& status) {
      return status.Commands(number) + status.Events(number);
    };
    const auto before = had(mDaemon.mKernel.GetStatus());
    mCard = mDaemon.Tap();
    EXPECT_TRUE(mDaemon.mKernel.WaitFor([&](const Status& status) { return had(status) > before; },
                                        DaemonInProcess::kBound));
  }
  void LoseEvents() {
    mDaemon.mKernel.OverrunEvents();
    AwaitTold();
  }
  /// Waits until the fault has happened.
  void AwaitFired() const {
    EXPECT_TRUE(Becomes([this] { return mDaemon.mKernel.ListRules().back().fired; }, Gt(0U)));
  }
  void AwaitTold() const { EXPECT_TRUE(mDaemon.WaitForMoreTold(mTold)); }

  std::string Judge() {
    auto state = mDaemon.Settle();
    mDaemon.Repair();
    if (state == State::Enabled && !GoesOnReading(state)) {
      ADD_FAILURE() << "quietly deaf";
      return "deaf";
    }
    EXPECT_FALSE(mDaemon.HasInvented());
    const bool told = mDaemon.WasTold(State::Error, mTold);
    if (state == State::FatalError) {
      return "fatal";
    }
    if (state == State::Enabled) {
      EXPECT_FALSE(told);
      return mCard.empty() || mDaemon.WasNotified(mCard) ? "works on" : "card lost";
    }
    EXPECT_EQ(state, State::Disabled);
    const auto reader = mDaemon.mKernel.GetStatus().Device();
    EXPECT_FALSE(reader.powered || reader.polling) << "told Disabled, and the reader is on";
    CheckEnabling();
    return told ? "recovered" : "works on";
  }

  DaemonInProcess mDaemon;

 private:
  /// Whether it reads two cards or leaves Enabled.
  bool GoesOnReading(State& state) {
    for (int cards = 0; cards < 2 && state == State::Enabled; ++cards) {
      if (!mDaemon.ReadsCardOrTells(DaemonInProcess::kBound)) {
        return false;
      }
      state = mDaemon.Settle();
    }
    return true;
  }
  void CheckEnabling() {
    auto state = mDaemon.Enable();
    EXPECT_TRUE(GoesOnReading(state));
    EXPECT_EQ(state, State::Enabled);
  }

  std::string mCard;
  size_t mTold = mDaemon.CountTold();
};

struct Phase {
  const char* name;
  bool isEnabled;
  bool isWatched;
  void (*begin)(Cell& cell, const Exchange& exchange);
  std::vector<Exchange> exchanges;
};

void PrintTo(const Phase& phase, std::ostream* out) {
  *out << phase.name;
}

const Phase kPhases[] = {
    {"Enabling",
     false,
     false,
     [](Cell& cell, const Exchange&) { cell.mDaemon.Enable(); },
     {{"find family nfc", "GETFAMILY nth=1"},
      {"find family nlctrl", "GETFAMILY nth=2"},
      {"find group events", "GETFAMILY nth=3"},
      {"every GETFAMILY", "GETFAMILY"},
      {"GET_DEVICE", "GET_DEVICE nth=1"},
      {"every GET_DEVICE", "GET_DEVICE"},
      {"DEV_UP", "DEV_UP"},
      {"START_POLL", "START_POLL"}}},
    {"Reading a card",
     true,
     false,
     [](Cell& cell, const Exchange& exchange) { cell.TapUntil(exchange.number); },
     {{"TARGETS_FOUND", "TARGETS_FOUND nth=1", NFC_EVENT_TARGETS_FOUND},
      {"GET_TARGET", "GET_TARGET nth=1", NFC_CMD_GET_TARGET},
      {"DEV_UP (polling is started again)", "DEV_UP nth=1", NFC_CMD_DEV_UP},
      {"START_POLL", "START_POLL nth=1", NFC_CMD_START_POLL}}},
    {"Disabling",
     true,
     false,
     [](Cell& cell, const Exchange&) { cell.mDaemon.Disable(); },
     {{"STOP_POLL", "STOP_POLL nth=1"},
      {"every STOP_POLL", "STOP_POLL"},
      {"DEV_DOWN", "DEV_DOWN nth=1"},
      {"every DEV_DOWN", "DEV_DOWN"},
      {"UNSPEC", "UNSPEC"}}},
    {"Recovering",
     true,
     false,
     [](Cell& cell, const Exchange&) { cell.LoseEvents(); },
     {{"STOP_POLL (on the old socket)", "STOP_POLL nth=1"},
      {"find family nfc", "GETFAMILY nth=1"},
      {"find family nlctrl", "GETFAMILY nth=2"},
      {"find group events", "GETFAMILY nth=3"},
      {"GET_DEVICE", "GET_DEVICE nth=1"},
      {"STOP_POLL", "STOP_POLL nth=2"},
      {"DEV_DOWN", "DEV_DOWN nth=1"},
      {"UNSPEC", "UNSPEC"}}},
    {"Looking after polling",
     true,
     true,
     [](Cell& cell, const Exchange& exchange) {
       // The second half of the exchanges only happens when kernel and reader disagree.
       if (exchange.number != 0) {
         cell.mDaemon.mKernel.SetFault(Fault::OutOfStep);
       }
       cell.AwaitFired();
     },
     {{"STOP_POLL", "STOP_POLL nth=1"},
      {"START_POLL", "START_POLL nth=1"},
      {"DEV_DOWN (they disagree)", "DEV_DOWN nth=1", NFC_CMD_DEV_DOWN},
      {"DEV_UP", "DEV_UP nth=1", NFC_CMD_DEV_UP},
      {"START_POLL (the second)", "START_POLL nth=2", NFC_CMD_START_POLL}}},
};

constexpr std::chrono::milliseconds kWatchful = 300ms;
constexpr std::chrono::milliseconds kUnwatched = 1h;

constexpr const char* kFaults[] = {
    "errno=EPERM",    "errno=EIO", "errno=EBUSY", "errno=ENODEV", "errno=EINVAL",   "errno=ETIMEDOUT",
    "errno=EALREADY", "errno=512", "delay=100",   "drop",         "truncate=0",     "truncate=19",
    "truncate=35",    "garble",    "garble=long", "garble=short", "garble=missing", "garble=twice",
    "garble=nested",  "duplicate", "reverse",     "no-done",      "interrupted",    "seq=4711",
    "sender=4711",    "overrun",   "close",       "unplug",
};

/// The outcome of one fault in one exchange; "-" if it cannot happen there.
std::string Try(const Phase& phase, const Exchange& exchange, std::string_view fault) {
  const auto is = [rule = std::string_view(exchange.rule)](const char* command) {
    return rule.starts_with(command);
  };
  const bool isEvent = is("TARGETS_FOUND");
  const bool isDump = is("GET_");
  const bool isLookUp = is("GETFAMILY");
  if ((isEvent && (fault.starts_with("errno") || fault == "delay=100" || fault == "seq=4711")) ||
      ((fault == "no-done" || fault == "interrupted") && !isDump) ||
      (fault.starts_with("garble=") && !isEvent && !isDump && !isLookUp) ||
      (fault == "reverse" && !isDump && !isLookUp) || (fault == "unplug" && (isEvent || isLookUp))) {
    return "-";
  }
  // Let the daemon check its polling often only if nothing else can notice the fault.
  const bool isUnheard = isEvent && (fault == "drop" || fault == "sender=4711");
  const bool isClaimed = is("START_POLL") && fault == "errno=EALREADY";
  const bool isWatched = isUnheard || isClaimed || phase.isWatched;

  SCOPED_TRACE(fmt::format("{}: {}, {}", phase.name, exchange.name, fault));
  const Leftovers leftovers;
  Cell cell(isWatched ? kWatchful : kUnwatched);
  if (fault == "close") {
    // The simulated kernel takes a minute to end the poll of a closed socket. Until then other sockets get
    // EBUSY.
    cell.mDaemon.AllowOnAfterTheEnd();
  }
  if (phase.isEnabled) {
    cell.Enable();
  }
  cell.mDaemon.mKernel.AddRule(fmt::format("{} {}", exchange.rule, fault));
  phase.begin(cell, exchange);
  const bool isUnplugged = fault == "unplug" && (exchange.number != 0 || phase.isWatched);
  // The kernel denies a poll that is alive. No card may come while the daemon waits whether a find explains
  // that.
  const bool isDenied =
      phase.isWatched && is("STOP_POLL") && (fault == "errno=EINVAL" || fault == "errno=EALREADY");
  if (isUnplugged || isDenied || (isEvent && fault == "duplicate")) {
    cell.AwaitTold();  // before the reader is plugged in again, and before another card
  }
  return cell.Judge();
}

/// Checks this part of the documented tables, or appends it to the file that the environment names.
void Document(const std::string& part) {
  if (const char* report = std::getenv("RFID_FAULTS_REPORT")) {
    std::ofstream(report, std::ios::app) << part;
    return;
  }
  std::stringstream documented;
  documented << std::ifstream(FAULT_TABLES).rdbuf();
  EXPECT_NE(documented.str().find(part), std::string::npos) << "documented otherwise:\n" << part;
}

/// The outcomes of a message cut off at each length, or each `step`th; lengths with the same outcome share an
/// entry.
std::string TryLengths(const Phase& phase, std::string_view name, int longest, int step = 1) {
  const auto exchange = std::find_if(phase.exchanges.begin(), phase.exchanges.end(),
                                     [name](const auto& one) { return one.name == name; });
  std::string row = fmt::format("| {} |", name);
  std::string last;
  for (int length = 0; length <= longest; length += step) {
    if (auto outcome = Try(phase, *exchange, fmt::format("truncate={}", length)); outcome != last) {
      row += fmt::format("{} {}: {}", last.empty() ? "" : ",", length, outcome);
      last = std::move(outcome);
    }
  }
  EXPECT_EQ(last, "works on") << "that long is the whole message";
  return row + " |\n";
}

class FaultMatrix : public ::testing::TestWithParam<Phase> {};

}  // namespace

TEST_P(FaultMatrix, IsSurvivedOrReported) {
  const auto& phase = GetParam();
  auto table = fmt::format("\n## {}\n\n| fault |", phase.name);
  std::string line = "|---|";
  for (const auto& exchange : phase.exchanges) {
    table += fmt::format(" {} |", exchange.name);
    line += "---|";
  }
  table += "\n" + line + "\n";
  for (const auto* fault : kFaults) {
    std::string row = fmt::format("| {} |", fault);
    for (const auto& exchange : phase.exchanges) {
      row += fmt::format(" {} |", Try(phase, exchange, fault));
    }
    std::printf("%s\n", row.c_str());
    table += row + "\n";
  }
  Document(table);
}

INSTANTIATE_TEST_SUITE_P(Every, FaultMatrix, ::testing::ValuesIn(kPhases), [](const auto& one) {
  std::string name = one.param.name;
  std::erase(name, ' ');
  return name;
});

TEST(kFaults, BetweenExchangesAreSurvivedOrReported) {
  struct Event {
    const char* name;
    std::chrono::milliseconds watchPeriod;
    void (*disturb)(Cell& cell);
  };
  std::string table = "\n## Polling, no card is there\n\n| fault | |\n|---|---|\n";
  for (const auto& event : {
           Event{"events lost (ENOBUFS)", kUnwatched, [](Cell& cell) { cell.LoseEvents(); }},
           Event{"an event that names no device", kUnwatched,
                 [](Cell& cell) {
                   cell.mDaemon.mKernel.SendRawEvent(
                       MessageBuilder(20, 0, 0, 0).Genl(NFC_EVENT_TARGETS_FOUND, 1).Finish());
                   cell.AwaitTold();
                 }},
           Event{"unplug", kUnwatched,
                 [](Cell& cell) {
                   cell.mDaemon.mKernel.Unplug();
                   cell.AwaitTold();
                 }},
           Event{"unplug and plug in again, the event is lost", kWatchful,
                 [](Cell& cell) {
                   cell.mDaemon.mKernel.AddRule("DEVICE_REMOVED drop");
                   cell.mDaemon.mKernel.Unplug();
                   cell.mDaemon.Repair();
                   cell.AwaitTold();
                 }},
           Event{"unplug, disable", kUnwatched,
                 [](Cell& cell) {
                   cell.mDaemon.mKernel.Unplug();
                   cell.mDaemon.Disable();
                 }},
           Event{"a transfer to the reader fails", kWatchful,
                 [](Cell& cell) { cell.mDaemon.mKernel.SetFault(Fault::PollDead); }},
           Event{"kernel and reader disagree", kWatchful,
                 [](Cell& cell) { cell.mDaemon.mKernel.SetFault(Fault::OutOfStep); }},
           Event{"the chip goes on polling after its stop", kWatchful,
                 [](Cell& cell) { cell.mDaemon.mKernel.SetFault(Fault::ChipPolls); }},
       }) {
    SCOPED_TRACE(event.name);
    const Leftovers leftovers;
    Cell cell(event.watchPeriod);
    cell.Enable();
    event.disturb(cell);
    table += fmt::format("| {} | {} |\n", event.name, cell.Judge());
  }
  Document(table);
}

TEST(kFaults, AMessageCutOffAtAnyLengthIsSurvivedOrReported) {
  const auto& enabling = kPhases[0];
  const auto& reading = kPhases[1];
  Document("\n## Messages cut off at every length\n\n| message | from so many bytes on |\n|---|---|\n" +
           TryLengths(enabling, "find group events", 476, 7) + TryLengths(enabling, "GET_DEVICE", 100) +
           TryLengths(reading, "TARGETS_FOUND", 30) + TryLengths(reading, "GET_TARGET", 100) +
           TryLengths(reading, "START_POLL", 40));
}

TEST(kFaults, AKernelThatNoLongerAnswersDoesNotKeepTheDaemonAlive) {
  for (const auto* command : {"any", "GETFAMILY", "UNSPEC", "START_POLL", "STOP_POLL", "DEV_DOWN"}) {
    for (const bool enabled : {false, true}) {
      SCOPED_TRACE(fmt::format("{} {}", command, enabled));
      const Leftovers leftovers;
      DaemonInProcess daemon;
      if (enabled) {
        EXPECT_EQ(daemon.Enable(), State::Enabled);
        daemon.Tap();
      }
      daemon.mKernel.AddRule(fmt::format("{} drop", command));
      daemon.AllowOnAfterTheEnd();
      if (!enabled) {
        daemon.Enable();
      }
    }
  }
}
