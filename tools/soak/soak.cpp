// soak: runs the daemon in a busy station for a long time, and checks that every card comes to what it
// should.

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <linux/nfc.h>

#include <iterator>
#include <map>
#include <random>
#include <set>

#include "tools/common/commandline.h"
#include "tools/common/output.h"
#include "tools/common/stopsignals.h"
#include "tools/soak/stationdriver.h"
#include "tools/virtual-nfc/server/controlprotocol.h"

using namespace virtualnfc;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr std::chrono::seconds kRecentTagTimeout(2);
constexpr Milliseconds kSurelyNotLost(1500);
constexpr std::chrono::seconds kProgressPeriod(10);

const std::vector<std::string> kKnownCards{"04A12B5C", "04A12B5C112233", "DEADBEEF", "E007060504030201"};

struct Card {
  std::string uid;  ///< as the daemon notifies it
  bool valid;       ///< the UID is one that the daemon accepts
  Tag tag;
};

Card ValidCard(const std::string& uid) {
  return {uid, true, MakeTag(uid.size() == 16 ? TagKind::Iso15693 : TagKind::Mifare, uid)};
}

/// Plays random events of a charging station. Knows from its own actions, the kernel and the answers what
/// must come of every card, and compares it with the notifications.
class Soak : public StationDriver {
 public:
  explicit Soak(unsigned seed) : StationDriver(seed % 2 == 1 ? Stack::Nci : Stack::Digital), mRandom(seed) {}

  /// Ends the old process if there is one, makes sure of a reader, starts a new process and enables it.
  void Restart() {
    if (mStation.HasDaemon()) {
      StopDaemon(Below(4) == 0 ? SIGKILL : SIGINT);
    }
    PlugIn();
    mSeen.clear();
    mLearning = false;
    if (mIsBroken) {
      mOcpp = mFree = false;  // nothing good was ever loaded
    }
    ++mLedger["the daemon was started"];
    Require(mStation.StartDaemon(), "the daemon starts");
    Request(false);  // not Disable: a daemon that was killed has left the reader on
    Request(true);
  }

  /// Plays one random event. Leaves the daemon enabled.
  void Act() {
    struct Kind {
      double weight;
      const char* name;
      void (Soak::*play)();
    };
    static constexpr Kind kKinds[] = {
        {400, "a card is tapped", &Soak::Tap},
        {60, "a card is held", &Soak::HoldCard},
        {200, "a card is injected", &Soak::Inject},
        {80, "a card while disabled", &Soak::SwipeWhileDisabled},
        {60, "a card while something happens", &Soak::SwipeWhileSomethingHappens},
        {9, "the peers fail", &Soak::PeersFail},
        {60, "reconfiguration", &Soak::Reconfigure},
        {5, "broken configuration", &Soak::BreakConfiguration},
        {20, "learning is switched", &Soak::ToggleLearning},
        {1, "the daemon restarts", &Soak::Restart},
    };
    Collect();
    mTold.clear();
    std::vector<double> weights;
    for (const auto& kind : kKinds) {
      weights.push_back(kind.weight);
    }
    const auto& kind = kKinds[std::discrete_distribution<size_t>(weights.begin(), weights.end())(mRandom)];
    mAction = kind.name;
    (this->*kind.play)();
    Require(ToldOfCard().empty(), "every notification has a card: " + ToldOfCard());
  }

  /// What has happened, and how often.
  std::string Ledger() const {
    std::string text;
    for (const auto& [what, count] : mLedger) {
      text += fmt::format("{:>8}  {}\n", count, what);
    }
    return text;
  }

 private:
  /// A card was last seen at some time between these two.
  struct Sighting {
    Clock::time_point earliest;
    Clock::time_point latest;
  };

  void Tap() { Swipe(RandomCard()); }
  void HoldCard() { Swipe(RandomCard(), Milliseconds(100 + Below(4000))); }

  void Inject() {
    auto card = RandomCard();
    if (!card.valid) {
      card.uid = fmt::format("NO-UID-{}", ++mCards);
    }
    const auto before = Clock::now();
    Require(mStation.Control().Inject(card.uid) == "Ok", "an injected card is taken while enabled");
    // The daemon answers the request before it carries it out. So the first fence may overtake the card, but
    // not the second.
    Require(Settle() && Settle(), "an injected card is no error");
    Judge(card, before);
  }

  /// While the daemon is being disabled, the card may still be read.
  void SwipeWhileDisabled() {
    const auto card = NewCard();
    const bool isEarly = Below(2) == 0;
    if (isEarly) {
      mKernel.PresentTag(card.tag);
    }
    Disable();
    const auto found = Finds();
    mKernel.PresentTag(card.tag);
    mKernel.WaitFor([](const Status&) { return false; }, Milliseconds(Below(200)));
    mKernel.RemoveTags();
    Require(Finds() == found, "off means off");
    Require(mStation.Control().Inject(card.uid) == "Illegal", "a card is refused while disabled");
    Reenable();
    Enter(isEarly ? ExpectedNotification(card) : "", "lost: not enabled");
  }

  void SwipeWhileSomethingHappens() {
    struct Event {
      const char* line;  ///< as virtual-nfc takes it
      bool fails;
    };
    static constexpr Event kEvents[] = {
        {"rule add START_POLL times=2 errno=EPROTO", true},  // the check of polling tries twice
        {"rule add START_POLL nth=1 drop", true},
        {"rule add START_POLL nth=1 delay=400", false},
        {"rule add GET_TARGET nth=1 errno=EIO", true},
        {"rule add GET_TARGET nth=1 drop", true},
        {"rule add GET_TARGET nth=1 duplicate", false},
        {"rule add GET_TARGET nth=1 sender=4711", true},
        {"rule add GET_TARGET nth=1 unplug", true},
        {"rule add DEV_UP nth=1 errno=EIO", true},
        {"rule add TARGETS_FOUND nth=1 overrun", true},
        {"fault poll-dead", false},
        {"fault out-of-step", false},
        {"fault chip-polls", false},
        {"tap 04A1B2C3 --tech foreign", false},
        {"unplug", true},
    };
    const auto& event = kEvents[Below(std::size(kEvents))];
    mAction = event.line;
    const auto answer = HandleControlLine(mKernel, event.line);
    Require(answer.starts_with("ok"), answer);
    if (Below(2) == 0) {
      PlugIn();
    }
    Swipe(RandomCard(), {}, event.fails);
    mKernel.ClearRules();
  }

  void PeersFail() {
    if (Below(3) == 0) {
      mStation.Peers().SetFeedbackAnswer(VirtualStation::EAnswer::Hang);
    } else {
      mStation.StopPeers();
    }
    Tap();
    mStation.StopPeers();
    mStation.StartPeers();
  }

  void Reconfigure() {
    mOcpp = Below(3) == 0;
    mFree = Below(5) == 0;
    mIsBroken = false;
    mStation.WriteFile(
        "hub/settings.json",
        fmt::format(R"({{"SeccOcppActive": {}, "SessionManagerChargeWithoutAuth": {}}})", mOcpp, mFree));
    mPermitted.clear();
    std::string tokens;
    for (const auto& uid : kKnownCards) {
      if (Below(2) == 0) {
        mPermitted.insert(uid);
        tokens += fmt::format(R"({}{{"RfidTokenUid": "{}"}})", tokens.empty() ? "" : ", ", uid);
      }
    }
    mStation.WriteFile("hub/rfid_standalone.json", fmt::format(R"({{"Tokens": [{}]}})", tokens));
  }

  void BreakConfiguration() {
    if (mLearning) {
      return;  // settings are not looked at
    }
    Swipe(NewCard());  // makes the daemon load the good file, whose values stay
    mStation.WriteFile("hub/settings.json", R"({"SeccOcppActive": tru)");
    mIsBroken = true;
  }

  void ToggleLearning() {
    mLearning = !mLearning;
    Require(mStation.Control().Learning(mLearning) == "Ok", "learning is switched while enabled");
  }

  unsigned Below(size_t bound) {
    return static_cast<unsigned>(std::uniform_int_distribution<size_t>(0, bound - 1)(mRandom));
  }

  /// Valid, and never presented before.
  Card NewCard() { return ValidCard(fmt::format("{:08X}", 0x10000000U + ++mCards)); }

  /// A known card, a new one, one without a valid UID, or the one before.
  Card RandomCard() {
    if (Below(4) > 0) {
      const unsigned kind = Below(15);
      const auto tooLong = fmt::format("{:020X}", ++mCards);
      mLatest = kind < 6     ? ValidCard(kKnownCards[Below(kKnownCards.size())])
                : kind < 12  ? NewCard()
                : kind == 12 ? Card{tooLong, false, MakeTag(TagKind::Mifare, tooLong)}
                             : Card{"", false, MakeTag(TagKind::Felica, "0102030405060708")};
    }
    return mLatest;
  }

  unsigned Finds() const { return mKernel.GetStatus().Events(NFC_EVENT_TARGETS_FOUND); }

  /// Leaves the card at the reader. Returns the longest time for which the reader did not see it.
  Clock::duration Hold(Milliseconds time) {
    const auto end = Clock::now() + time;
    Clock::duration unseen{};
    for (auto last = Clock::now(); last < end;) {
      const auto found = Finds();
      mKernel.WaitFor([&](const Status& s) { return s.Events(NFC_EVENT_TARGETS_FOUND) > found; },
                      std::chrono::ceil<Milliseconds>(end - last));
      const auto now = Clock::now();
      unseen = std::max(unseen, now - last);
      last = now;
    }
    return unseen;
  }

  /// Presents the card. If the reader `fails` meanwhile, the daemon must report an error.
  void Swipe(const Card& card, Milliseconds hold = {}, bool fails = false) {
    const auto expected = ExpectedNotification(card);  // a restart forgets the learning mode
    const auto found = Finds();
    const auto before = Clock::now();
    mKernel.PresentTag(card.tag);
    Require(Await([&] { return Finds() > found || (fails && IsToldOfError()); }),
            "the reader finds a card while enabled");
    const auto unseen = Hold(hold);
    mKernel.RemoveTags();
    if (!fails) {
      Require(Settle(), "there is no error without a cause");
      Judge(card, before, hold, unseen > kSurelyNotLost);
      return;
    }
    Recover();
    Enter(expected, "lost: an error was reported");
  }

  /// Checks what came of a card that was presented after `before`, and read.
  void Judge(const Card& card, Clock::time_point before, Milliseconds hold = {}, bool mayRepeat = false) {
    // Near the limit of two seconds the card may be suppressed or not.
    const auto now = Clock::now();
    const auto seen = mSeen.find(card.uid);
    const bool maySuppress = seen != mSeen.end() && before - seen->second.latest <= kRecentTagTimeout;
    const bool mustSuppress = seen != mSeen.end() && now - seen->second.earliest < kRecentTagTimeout;
    Require(!mustSuppress || ToldOfCard().empty(), "a repetition is suppressed");
    Enter(ExpectedNotification(card), maySuppress ? "suppressed: seen again within two seconds" : "",
          mayRepeat);
    mSeen[card.uid] = {before + hold, now};
  }

  /// Waits for an error and its end, and enables the daemon again.
  void Recover() {
    Require(Await([this] { return Told("Error") > 0; }),
            "the supervisor is told when cards cannot be read any more");
    Require(Await([this] { return Told("Disabled") + Told("FatalError") > 0; }),
            "an error ends in Disabled or FatalError");
    mKernel.ClearRules();
    ++mLedger["the daemon reported an error"];
    if (Told("FatalError") > 0) {
      Restart();
    } else {
      std::erase(mTold, "Error");
      Reenable();
    }
  }

  void Reenable() {
    mSeen.clear();
    Request(true);
    Require(Settle(), "the reader works when it was enabled again");
  }

  /// Enters a card: as notified if the expected notification came (empty: none is expected), otherwise as
  /// `otherwise`, which is empty when there is no excuse.
  void Enter(const std::string& expected, const std::string& otherwise, bool mayRepeat = false) {
    const auto count = expected.empty() ? 0 : std::erase(mTold, expected);
    // A card that the reader did not see for long counts as a new one.
    Require(count <= 1 || mayRepeat, "a card is notified once for as long as it stays: " + expected);
    Require(count > 0 || expected.empty() || !otherwise.empty(), "a card is notified: " + expected);
    ++mLedger[count > 0 ? "card notified" : otherwise.empty() ? "withheld: charging is free" : otherwise];
  }

  std::string ExpectedNotification(const Card& card) const {
    if (!card.valid) {
      return "token " + card.uid + " ERfidUidInvalid";
    }
    if (mLearning) {
      return "learning " + card.uid;
    }
    return mFree                           ? ""
           : mOcpp                         ? "token " + card.uid + " ERfidAuthDeferred"
           : mPermitted.contains(card.uid) ? "token " + card.uid + " ERfidUidInStandAloneList"
                                           : "token " + card.uid + " ERfidUidNotInList";
  }

  std::mt19937 mRandom;
  std::map<std::string, size_t> mLedger;
  Card mLatest = ValidCard(kKnownCards.front());
  std::set<std::string> mPermitted;       ///< in the local list
  std::map<std::string, Sighting> mSeen;  ///< since polling last stopped
  bool mOcpp = false;
  bool mFree = false;
  bool mLearning = false;
  bool mIsBroken = false;  ///< the settings do not parse, so the daemon keeps the last good ones
  unsigned mCards = 0;     ///< new ones
};

int Run(double minutes, unsigned seed) {
  using Duration = std::chrono::duration<double, std::ratio<60>>;
  const StopSignals signals;
  LineOutput output;
  output.Write(fmt::format("seed {}, {} minutes", seed, minutes));
  const auto start = Clock::now();
  Soak soak(seed);
  const auto print = [&] {
    output.Write(fmt::format("{:%T}  {}", std::chrono::floor<std::chrono::seconds>(Clock::now() - start),
                             soak.Resources()));
  };
  try {
    soak.Restart();
    print();
    auto printed = start;
    while (Clock::now() - start < Duration(minutes) && !signals.HaveCome()) {
      soak.Act();
      if (Clock::now() - printed >= kProgressPeriod) {
        printed = Clock::now();
        print();
      }
    }
    print();
    soak.StopDaemon(SIGINT);
  } catch (const std::exception& e) {
    output.Write(soak.Ledger());
    throw std::runtime_error(fmt::format("{}; the daemon's logs are in {}", e.what(), soak.KeepLogs()));
  }
  output.Write(soak.Ledger() + "Every card came to what it should.");
  return 0;
}

int RunCommandLine(int argc, char** argv) {
  double minutes = 30;
  unsigned seed = std::random_device()();
  CLI::App app("Runs the daemon in a busy station with random events and checks what comes of every card.",
               "soak");
  SetUpTool(app);
  app.add_option("--minutes", minutes, "How long")->capture_default_str()->check(CLI::Range(0.01, 100000.0));
  app.add_option("--seed", seed, "Seed of the random events. Default: a random one");
  app.footer("Exit status: 0 every card came to what it should, 1 one did not, 2 usage error.");
  if (const auto status = ParseCommandLine(app, argc, argv)) {
    return *status;
  }
  return Run(minutes, seed);
}

}  // namespace

int main(int argc, char** argv) {
  return RunTool("soak", RunCommandLine, argc, argv);
}
