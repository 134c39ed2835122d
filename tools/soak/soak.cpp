#include "tools/soak/soak.h"

#include <fmt/format.h>
#include <linux/nfc.h>

#include <algorithm>
#include <csignal>
#include <iterator>
#include <numeric>

using namespace virtualnfc;
using namespace std::chrono_literals;

namespace {

constexpr std::chrono::seconds kRecentTagTimeout(2);
constexpr std::chrono::milliseconds kSurelyNotLost(1500);

bool IsOfCard(const std::string& told) {
  return (told.starts_with("token ") && !told.starts_with(std::string("token ") + kFenceUid)) ||
         told.starts_with("learning ");
}

}  // namespace

Soak::Soak(unsigned seed)
    : StationDriver(seed % 2 == 1 ? Stack::Nci : Stack::Digital), mRandom(seed), mCards(mRandom) {}

void Soak::Act() {
  struct Kind {
    unsigned weight;
    const char* name;
    void (Soak::*act)();
  };
  static constexpr Kind kKinds[] = {
      {400, "a card is tapped", &Soak::Tap},
      {60, "a card is held", &Soak::HoldCard},
      {200, "a card is injected", &Soak::Inject},
      {40, "a card while disabled", &Soak::SwipeWhileDisabled},
      {40, "a card while disabling", &Soak::SwipeWhileDisabling},
      {30, "a card while something fails", &Soak::SwipeWhileSomethingFails},
      {5, "events are lost", &Soak::LoseEvents},
      {2, "the reader is unplugged", &Soak::Unplug},
      {3, "the reader is plugged in again", &Soak::Replug},
      {15, "polling ends without an event", &Soak::PollingEnds},
      {10, "a foreign tag", &Soak::ForeignTag},
      {10, "a find is lost", &Soak::LoseFind},
      {6, "the peers restart", &Soak::RestartPeers},
      {3, "feedback hangs", &Soak::FeedbackHangs},
      {60, "reconfiguration", &Soak::Reconfigure},
      {5, "broken configuration", &Soak::BreakConfiguration},
      {20, "learning is switched", &Soak::ToggleLearning},
      {1, "the daemon restarts", &Soak::Restart},
  };
  Collect();
  mTold.clear();
  unsigned chosen = Below(std::accumulate(std::begin(kKinds), std::end(kKinds), 0U,
                                          [](unsigned sum, const Kind& kind) { return sum + kind.weight; }));
  const auto* kind = std::begin(kKinds);
  for (; chosen >= kind->weight; ++kind) {
    chosen -= kind->weight;
  }
  mAction = kind->name;
  (this->*kind->act)();
  if (mStation.HasDaemon()) {
    mMeasurements.Take(mStation.Daemon());
  }
  const auto left = std::find_if(mTold.begin(), mTold.end(), IsOfCard);
  Require(left == mTold.end(), "every notification has a card: " + (left == mTold.end() ? "" : *left));
}

void Soak::Inject() {
  auto card = mCards.Random();
  if (!card.valid) {
    card.uid = fmt::format("NO-UID-{}", ++mInjected);
  }
  mLedger.EnterSent();
  const auto before = Clock::now();
  Require(mStation.Control().Inject(card.uid) == "Ok", "an injected card is taken while enabled");
  // The daemon answers the request before it carries it out. So the first fence may overtake the card, but
  // not the second.
  Require(Settle() && Settle(), "an injected card is no error");
  const auto seen = mSeen.find(card.uid);
  const bool maySuppress = seen != mSeen.end() && before - seen->second.last <= kRecentTagTimeout;
  EnterOutcome(ExpectedNotification(card), maySuppress ? EOutcome::Suppressed : EOutcome::Unexplained);
  mSeen[card.uid] = {before, Clock::now()};
}

void Soak::SwipeWhileDisabled() {
  const auto card = mCards.Random();
  Disable();
  mSeen.clear();
  mLedger.EnterSent();
  if (Below(2) == 0) {
    const bool isRefused = mStation.Control().Inject(card.uid) == "Illegal";
    mLedger.Enter(isRefused ? EOutcome::Refused : EOutcome::Unexplained);
  } else {
    const auto found = mStation.Kernel().GetStatus().Events(NFC_EVENT_TARGETS_FOUND);
    mStation.Kernel().PresentTag(card.tag);
    mStation.Kernel().WaitFor([](const Status&) { return false; }, std::chrono::milliseconds(Below(200)));
    mStation.Kernel().RemoveTags();
    Require(mStation.Kernel().GetStatus().Events(NFC_EVENT_TARGETS_FOUND) == found, "off means off");
    mLedger.Enter(EOutcome::LostDisabled);
  }
  Enable();
  Require(Settle(), "the reader works when it was enabled again");
}

void Soak::SwipeWhileDisabling() {
  const auto card = mCards.New();
  mLedger.EnterSent();
  mStation.Kernel().PresentTag(card.tag);
  if (Below(2) == 0) {
    mStation.Kernel().WaitFor([](const Status& status) { return !status.Device().polling; }, 1s);
  }
  Disable();
  mSeen.clear();
  mStation.Kernel().RemoveTags();
  Enable();
  Require(Settle(), "the reader works when it was enabled again");
  EnterOutcome(ExpectedNotification(card), EOutcome::LostDisabled);
}

void Soak::SwipeWhileSomethingFails() {
  struct Rule {
    const char* text;
    EFailure failure;
  };
  // The START_POLL that fails may be the one of the polling check, which tries once more.
  static constexpr Rule kRules[] = {
      {"START_POLL nth=1 errno=EPROTO", EFailure::Possible},
      {"START_POLL nth=1 errno=EBUSY", EFailure::Possible},
      {"START_POLL nth=1 drop", EFailure::Certain},
      {"START_POLL nth=1 delay=400", EFailure::None},
      {"GET_TARGET nth=1 errno=EIO", EFailure::Certain},
      {"GET_TARGET nth=1 drop", EFailure::Certain},
      {"GET_TARGET nth=1 duplicate", EFailure::None},
      {"GET_TARGET nth=1 seq=77", EFailure::Certain},
      {"GET_TARGET nth=1 sender=4711", EFailure::Certain},
      {"GET_TARGET nth=1 no-done", EFailure::Certain},
      {"GET_TARGET nth=1 unplug", EFailure::Certain},
      {"DEV_UP nth=1 errno=EIO", EFailure::Certain},
  };
  const auto& rule = kRules[Below(std::size(kRules))];
  mAction = rule.text;
  mStation.Kernel().AddRule(rule.text);
  Swipe(mCards.Random(), 0ms, rule.failure);
  mStation.Kernel().ClearRules();
}

void Soak::LoseEvents() {
  mStation.Kernel().OverrunEvents();
  Require(AwaitTold("Error"), "lost events are reported as an error");
  Require(AwaitTold("Disabled"), "the daemon recovers from lost events");
  mSeen.clear();
  Enable();
}

void Soak::Unplug() {
  const auto card = mCards.Random();
  mStation.Kernel().Unplug();
  mLedger.EnterSent();
  mStation.Kernel().PresentTag(card.tag);
  mStation.Control().Disable();
  const bool isTold = Require(AwaitTold("FatalError"), "a reader that is gone is a fatal error");
  mStation.Kernel().RemoveTags();
  mLedger.Enter(isTold ? EOutcome::LostUnplugged : EOutcome::Unexplained);
  Restart();
}

void Soak::Replug() {
  const auto card = mCards.Random();
  mStation.Kernel().Unplug();
  mLedger.EnterSent();
  mStation.Kernel().PresentTag(card.tag);
  PlugIn();
  Require(AwaitTold("Error"), "the supervisor is told of a reader that was gone");
  mStation.Kernel().RemoveTags();
  RecoverWith(card);
}

void Soak::PollingEnds() {
  static constexpr Fault kFaults[] = {Fault::PollDead, Fault::OutOfStep, Fault::ChipPolls};
  mStation.Kernel().SetFault(kFaults[Below(std::size(kFaults))]);
  Swipe(mCards.Random(), 0ms, EFailure::None);
}

void Soak::ForeignTag() {
  mStation.Kernel().PresentTag(MakeTag(TagKind::Foreign, "04A1B2C3"));
  mStation.Kernel().WaitFor([](const Status&) { return false; }, std::chrono::milliseconds(Below(200)));
  mStation.Kernel().RemoveTags();
  Swipe(mCards.Random(), 0ms, EFailure::None);
}

void Soak::LoseFind() {
  const auto card = mCards.New();
  mStation.Kernel().AddRule("TARGETS_FOUND nth=1 drop");
  mLedger.EnterSent();
  mStation.Kernel().PresentTag(card.tag);
  Require(Eventually([this] { return mStation.Kernel().ListRules().back().fired > 0; }, kPatience),
          "the reader finds a card while enabled");
  mStation.Kernel().RemoveTags();
  mStation.Kernel().ClearRules();
  Require(Settle(), "there is no error without a cause");
  EnterOutcome(ExpectedNotification(card), EOutcome::LostUnheard);  // unless the next look was quick
  Swipe(mCards.Random(), 0ms, EFailure::None);
}

void Soak::RestartPeers() {
  mStation.StopPeers();
  Swipe(mCards.Random(), 0ms, EFailure::None);
  mStation.StartPeers();
}

void Soak::FeedbackHangs() {
  mStation.Peers().SetFeedbackAnswer(VirtualStation::EAnswer::Hang);
  Swipe(mCards.Random(), 0ms, EFailure::None);
  mStation.Peers().SetFeedbackAnswer(VirtualStation::EAnswer::Ok);
}

void Soak::Reconfigure() {
  mOcpp = Below(3) == 0;
  mFree = Below(5) == 0;
  mIsBroken = false;
  mStation.WriteFile(
      "hub/settings.json",
      fmt::format(R"({{"SeccOcppActive": {}, "SessionManagerChargeWithoutAuth": {}}})", mOcpp, mFree));
  mPermitted.clear();
  std::string tokens;
  for (const auto& card : mCards.Known()) {
    if (Below(2) == 0) {
      mPermitted.insert(card.uid);
      tokens += fmt::format(R"({}{{"RfidTokenUid": "{}"}})", tokens.empty() ? "" : ", ", card.uid);
    }
  }
  mStation.WriteFile("hub/rfid_standalone.json", fmt::format(R"({{"Tokens": [{}]}})", tokens));
}

void Soak::BreakConfiguration() {
  if (mLearning) {
    return;  // settings are not looked at
  }
  Swipe(mCards.New(), 0ms, EFailure::None);  // makes the daemon load the good file, whose values stay
  mStation.WriteFile("hub/settings.json", R"({"SeccOcppActive": tru)");
  mIsBroken = true;
}

void Soak::ToggleLearning() {
  mLearning = !mLearning;
  Require(mStation.Control().Learning(mLearning) == "Ok", "learning is switched while enabled");
}

/// Ends the old process if there is one, makes sure of a reader, and starts a new process.
void Soak::Restart() {
  if (mStation.HasDaemon()) {
    StopDaemon(Below(4) == 0 ? SIGKILL : SIGINT);
    mSeen.clear();
  }
  PlugIn();
  mLearning = false;
  if (mIsBroken) {
    mOcpp = mFree = false;  // nothing good was ever loaded
  }
  ++mStarts;
  if (Require(mStation.StartDaemon(), "the daemon starts")) {
    Request(false);  // not Disable: a daemon that was killed has left the reader on
    Enable();
  }
}

void Soak::End() {
  mAction = "end";
  if (mStation.HasDaemon()) {
    StopDaemon(SIGINT);
  }
}

void Soak::Swipe(const Card& card, std::chrono::milliseconds hold, EFailure failure) {
  auto& kernel = mStation.Kernel();
  const auto found = kernel.GetStatus().Events(NFC_EVENT_TARGETS_FOUND);
  mLedger.EnterSent();
  const auto before = Clock::now();
  kernel.PresentTag(card.tag);
  Require(
      kernel.WaitFor([&](const Status& s) { return s.Events(NFC_EVENT_TARGETS_FOUND) > found; }, kPatience),
      "the reader finds a card while enabled");
  const auto unseen = Hold(hold);
  kernel.RemoveTags();
  const bool isRead = failure != EFailure::Certain && Settle();
  if (failure != EFailure::None && !isRead) {
    Require(AwaitTold("Error"), "the supervisor is told when cards cannot be read any more");
    RecoverWith(card);
    return;
  }
  Require(isRead, "there is no error without a cause");
  // Near the limit of two seconds the card may be suppressed or not.
  const auto seen = mSeen.find(card.uid);
  const bool maySuppress = seen != mSeen.end() && before - seen->second.last <= kRecentTagTimeout;
  const bool mustSuppress = seen != mSeen.end() && Clock::now() - seen->second.first < kRecentTagTimeout;
  Require(!mustSuppress || std::none_of(mTold.begin(), mTold.end(), IsOfCard), "a repetition is suppressed");
  EnterOutcome(ExpectedNotification(card), maySuppress ? EOutcome::Suppressed : EOutcome::Unexplained,
               unseen > kSurelyNotLost);
  mSeen[card.uid] = {hold == 0ms ? before : before + hold, Clock::now()};
}

void Soak::RecoverWith(const Card& card) {
  const auto expected = ExpectedNotification(card);  // a restart forgets the learning mode
  const bool hasEnded = Await([this] { return Told("Disabled") + Told("FatalError") > 0; });
  Require(hasEnded, "an error ends in Disabled or FatalError");
  mStation.Kernel().ClearRules();
  mSeen.clear();
  if (Told("FatalError") > 0) {
    Restart();
  } else {
    Enable();
    std::erase(mTold, "Error");
    Require(Settle(), "the reader works after a recovery");
  }
  EnterOutcome(expected, EOutcome::LostError);
}

void Soak::EnterOutcome(const std::string& expected, EOutcome otherwise, bool mayRepeat) {
  const auto count = expected.empty() ? 0 : Told(expected);
  std::erase(mTold, expected);
  for (size_t i = 0; i < count; ++i) {
    mLedger.EnterNotification();
    mLedger.Enter(EOutcome::Notified);
    if (i > 0) {
      mLedger.EnterSent();  // the reader did not see the card for so long that it counts as new
      Require(mayRepeat, "a card is notified once for as long as it stays: " + expected);
    }
  }
  if (count == 0) {
    const bool isWithheld = expected.empty() && otherwise == EOutcome::Unexplained;
    mLedger.Enter(isWithheld ? EOutcome::Withheld : otherwise);
    Require(isWithheld || otherwise != EOutcome::Unexplained, "a card is notified: " + expected);
  }
}

std::string Soak::ExpectedNotification(const Card& card) const {
  if (!card.valid) {
    return "token " + card.uid + " ERfidUidInvalid";
  }
  if (mLearning) {
    return "learning " + card.uid;
  }
  if (mFree) {
    return "";
  }
  return "token " + card.uid +
         (mOcpp                           ? " ERfidAuthDeferred"
          : mPermitted.contains(card.uid) ? " ERfidUidInStandAloneList"
                                          : " ERfidUidNotInList");
}

std::string Soak::Resources() const {
  return fmt::format("{}; {} starts", mMeasurements.Line(), mStarts);
}
