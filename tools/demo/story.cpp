#include "tools/demo/story.h"

#include <linux/nfc.h>

#include <csignal>
#include <deque>
#include <functional>

using namespace virtualnfc;

namespace {

class Story {
 public:
  Story(Station& station, Narrator& narrator, const StopSignals& signals)
      : mStation(station), mNarrator(narrator), mSignals(signals) {}

  void Start() {
    mNarrator.Title("The start");
    mNarrator.Act("the daemon starts, a supervisor subscribes");
    Require(mStation.StartDaemon({"-vv"}), "the daemon does not start");
    Next(mStates, "Uninitialized");
    Asked("enable", mStation.Control().Enable(), "Illegal");
    Asked("disable", mStation.Control().Disable());
    Next(mStates, "Disabled");
    Asked("enable", mStation.Control().Enable());
    Next(mStates, "Enabled");
    Take(mAlives, "");
    mNarrator.Saw("a sign of life at once");
  }

  void Alive() {
    Take(mAlives, "");
    mNarrator.Saw("a sign of life again, at " + TimeForPeople().substr(11));
  }

  void Cards() {
    mNarrator.Title("Cards");
    SlowReader();
    const auto before = Sightings();
    Present("mifare", "04A12B5C", ", which is in the list");
    Next(mFeedback, "EFbTokenScanned (2)");
    Next(mFeedback, "EFbAuthAccepted (0)");
    Next(mCards, "token 04A12B5C ERfidUidInStandAloneList");
    Shown(ipc::ESignalRfidLastUid, "Rfid last scanned UID", "04A12B5C");
    Shown(ipc::ESignalRfidLastTechnology, "Rfid last scanned tag technology", "MIFARE");
    mNarrator.Act("the same card is held");
    HoldCard("04A12B5C", before);
    mNarrator.Saw(fmt::format("seen {} times, and not notified again", Sightings() - before));

    Show("iso15693", "E007060504030201", ", not in the list; over the air its last byte comes first");
    Rejected("E007060504030201");
    Shown(ipc::ESignalRfidLastTechnology, "Rfid last scanned tag technology", "ISO15693");
    Show("mifare", "04A12B5C112233", ", a UID of seven bytes");
    Rejected("04A12B5C112233");
    Show("felica", "0102030405060708", ", of which the reader reports no UID");
    Next(mCards, "token '' ERfidUidInvalid");
  }

  void InjectedCards() {
    mNarrator.Title("Simulated cards");
    Asked("inject 04a1b2c3", mStation.Control().Inject("04a1b2c3"));
    Rejected("04A1B2C3");
    Asked("inject XYZ", mStation.Control().Inject("XYZ"));
    Next(mCards, "token XYZ ERfidUidInvalid");
  }

  void Modes() {
    mNarrator.Title("Learning, and settings that change while the daemon runs");
    Asked("learning on", mStation.Control().Learning(true));
    Show("mifare", "0A0B0C0D");
    Next(mFeedback, "EFbTokenScanned (2)");
    Next(mCards, "learning 0A0B0C0D");
    Asked("learning off", mStation.Control().Learning(false));
    NothingMore();
    mNarrator.Act("setting: the backend authorises (OCPP on)");
    mStation.WriteFile("hub/settings.json", R"({"SeccOcppActive": true})");
    Show("mifare", "11223344");
    Next(mFeedback, "EFbTokenScanned (2)");
    Next(mCards, "token 11223344 ERfidAuthDeferred");
    mNarrator.Act("setting: free charging on");
    mStation.WriteFile("hub/settings.json", R"({"SessionManagerChargeWithoutAuth": true})");
    Show("mifare", "55667788");
    Next(mFeedback, "EFbTokenScanned (2)");
    Logged("RFID Token 55667788 detected while auth disabled, not notifying.");
    Fence();
    NothingMore();
    mNarrator.Saw("no notification");
    mNarrator.Act("settings: OCPP off, free charging off");
    mStation.WriteFile("hub/settings.json", "{}");
  }

  void Recovery() {
    mNarrator.Title("A reader that fails and recovers");
    Present("mifare", "99AABBCC", ", and is held");
    Rejected("99AABBCC");
    mNarrator.Act("the reader fails to poll again after the card");
    mStation.Kernel().ClearRules();
    mStation.Kernel().AddRule("START_POLL times=1 errno=EPROTO");
    Next(mStates, "Error");
    Next(mStates, "Disabled");
    Logged("Recovery successful.");
    mStation.Kernel().RemoveTags();
    SlowReader();
    Asked("enable", mStation.Control().Enable());
    Next(mStates, "Enabled");
    Show("mifare", "DDEEFF00");
    Rejected("DDEEFF00");
  }

  void Unplugged() {
    mNarrator.Title("A reader that is gone");
    Await([this] { return mStation.Kernel().GetStatus().Device().polling; },
          "the daemon does not poll again");
    mNarrator.Act("the reader is unplugged");
    mLogMark = mStation.Log().size();
    mStation.Kernel().Unplug();
    Next(mStates, "Error");
    Next(mStates, "FatalError");
    Logged("The reader does not read tags any more.");
    Logged("Recovery failed with error: ");
    Asked("enable", mStation.Control().Enable());
    Next(mStates, "FatalError");
    Asked("disable", mStation.Control().Disable());
    Next(mStates, "FatalError");
  }

  void End() {
    mNarrator.Title("The end");
    NothingMore();
    mNarrator.Act("SIGINT to the daemon");
    mLogMark = mStation.Log().size();
    mStation.Daemon().Signal(SIGINT);
    const auto end = mStation.EndDaemon();
    Logged("State machine stopped");
    Require(end == "exit 0", "the daemon ends with " + end);
    mNarrator.Saw("exit status 0");
  }

 private:
  /// Events of one kind, in order. The order between two kinds is not defined.
  struct Stream {
    const char* what;
    std::deque<std::string> seen;
  };

  static void Require(bool condition, const std::string& failure) {
    if (!condition) {
      throw Failure(failure);
    }
  }

  /// Fails on timeout and when the daemon has ended.
  void Await(const std::function<bool()>& condition, const std::string& failure) {
    const bool isOver = Eventually([&] {
      if (mSignals.HaveCome()) {
        throw Interrupted();
      }
      return condition() || mStation.DaemonsEnd();
    });
    Require(isOver && condition(), failure);
  }

  void Asked(const std::string& request, const std::string& answer, const std::string& expected = "Ok") {
    mNarrator.Act("request: " + request);
    Require(answer == expected, "answered " + answer + " instead of " + expected);
    mNarrator.Saw("answered " + answer);
  }

  /// The answer comes after everything that the daemon had to do before.
  void Fence() { Require(mStation.Control().Learning(false) == "Ok", "the daemon does not answer"); }

  Tag Announce(const std::string& kind, const std::string& uid, const std::string& remark) {
    mLogMark = mStation.Log().size();
    mNarrator.Act(fmt::format("a card comes: {} {}{}", kind, uid, remark));
    return MakeTag(ParseTagKind(kind), uid);
  }
  void Present(const std::string& kind, const std::string& uid, const std::string& remark) {
    mStation.Kernel().PresentTag(Announce(kind, uid, remark));
  }
  /// The card is taken away once the reader has found it.
  void Show(const std::string& kind, const std::string& uid, const std::string& remark = "") {
    Require(mStation.Tap(Announce(kind, uid, remark)), "the reader does not find the card");
  }

  unsigned Sightings() { return mStation.Kernel().GetStatus().Events(NFC_EVENT_TARGETS_FOUND); }

  /// Ten sightings take longer than the two seconds for which the daemon remembers a card. On a machine that
  /// stalls for longer, the daemon correctly notifies the card again.
  void HoldCard(const std::string& uid, unsigned before) {
    for (unsigned seen = 10;; seen += 10) {
      Await([&] { return Sightings() >= before + seen; }, "the reader does not see the card any more");
      Fence();
      Collect();
      if (mCards.seen.empty()) {
        break;
      }
      Require(seen < 40, "the card is notified again and again");
      mNarrator.Act("this machine stalled, so the card was new to the daemon: it is still held");
      Take(mCards, uid);
      Take(mFeedback, "for scanning");
      Take(mFeedback, "for the outcome");
    }
    NothingMore();
    mStation.Kernel().RemoveTags();
  }

  /// A card is seen three times a second instead of fifty times, so that there is time to take it away.
  void SlowReader() {
    mStation.Kernel().ClearRules();
    mStation.Kernel().AddRule("START_POLL delay=300");
  }

  void Collect() {
    for (const auto& notification : mStation.Control().Take()) {
      if (notification == "alive") {
        mAlives.seen.push_back(notification);
      } else if (notification.starts_with("token  ")) {
        mCards.seen.push_back("token ''" + notification.substr(6));
      } else if (notification.starts_with("token ") || notification.starts_with("learning ")) {
        mCards.seen.push_back(notification);
      } else if (notification != "listening") {
        mStates.seen.push_back(notification);
      }
    }
    if (!mStation.HasPeers()) {
      return;
    }
    const auto events = mStation.Peers().FeedbackEvents();
    for (; mFeedbackTaken < events.size(); ++mFeedbackTaken) {
      const auto event = events[mFeedbackTaken];
      mFeedback.seen.push_back(
          fmt::format("{} ({})", ipc::EFbEventType_Name(event), static_cast<int>(event)));
    }
  }

  std::string Take(Stream& stream, const std::string& expected) {
    const auto hasNext = [&] {
      Collect();
      return !stream.seen.empty();
    };
    Await(hasNext, fmt::format("no {} {} comes", stream.what, expected));
    auto next = stream.seen.front();
    stream.seen.pop_front();
    return next;
  }

  void Next(Stream& stream, const std::string& expected) {
    const auto next = Take(stream, expected);
    Require(next == expected, fmt::format("expected {} {}, but {} came", stream.what, expected, next));
    mNarrator.Saw(fmt::format("{} {}", stream.what, expected));
  }

  /// What a valid card causes when it is not in the list.
  void Rejected(const std::string& uid) {
    Next(mFeedback, "EFbTokenScanned (2)");
    Next(mFeedback, "EFbAuthRejected (1)");
    Next(mCards, "token " + uid + " ERfidUidNotInList");
  }

  void NothingMore() {
    Collect();
    for (const auto* stream : {&mStates, &mCards, &mFeedback}) {
      Require(stream->seen.empty(), fmt::format("expected nothing, but {} {} came", stream->what,
                                                stream->seen.empty() ? "" : stream->seen.front()));
    }
  }

  void Shown(ipc::ESignalIdentifier signal, const char* name, const std::string& value) {
    const auto isShown = [&] {
      const auto values = mStation.Peers().SignalValues(signal);
      return !values.empty() && values.back() == value;
    };
    Await(isShown, fmt::format("diagnostics do not show {} = {}", name, value));
    mNarrator.Saw(fmt::format("diagnostics: {} = {}", name, value));
  }

  void Logged(const std::string& text) {
    Await([&] { return mStation.Log().find(text, mLogMark) != std::string::npos; },
          "the log has no line '" + text + "'");
    mNarrator.Saw("logged: " + text);
  }

  Station& mStation;
  Narrator& mNarrator;
  const StopSignals& mSignals;
  Stream mStates{"state", {}};
  Stream mAlives{"sign of life", {}};
  Stream mCards{"notified:", {}};
  Stream mFeedback{"feedback", {}};
  size_t mFeedbackTaken = 0;
  size_t mLogMark = 0;  ///< where the log of the present step begins
};

}  // namespace

void Play(Station& station, Narrator& narrator, const StopSignals& signals, bool onlyStart) {
  Story story(station, narrator, signals);
  story.Start();
  if (onlyStart) {
    return;
  }
  story.Alive();
  story.Cards();
  story.InjectedCards();
  story.Modes();
  story.Recovery();
  story.Unplugged();
  story.End();
}
