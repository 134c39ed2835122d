#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "ipc/diagnostics.pb.h"
#include "ipc/feedback.pb.h"
#include "ipc/rfid.pb.h"

/// What became of a request of the page.
struct BenchAnswer {
  bool done;
  std::string text;  ///< for people: the new state, or the reason why it was not done
};

/// What the bench has seen of the station, in the form that its page shows. Knows no sockets.
///
/// Threads: any. Nothing blocks.
class BenchModel {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// The daemon's two notification streams. The daemon counts as present while both are open.
  enum class EStream { States, Cards };
  void OnStreamOpen(EStream stream);
  void OnStreamEnd(EStream stream, const std::string& reason);

  void OnState(const std::string& state);
  void OnAlive();
  void OnToken(const ipc::MRfidToken& token);
  void OnLearningToken(const std::string& uid);
  void OnFeedback(ipc::EFbEventType event);
  void OnSignal(const ipc::MSignal& signal);

  /// Adds a card that is about to be tapped or injected; it now waits for its outcome. `kind` is
  /// virtual-nfc's word for it, empty for an injected card. Returns a number for Withdraw.
  std::uint64_t OnCardPresented(const std::string& uid, const std::string& kind, TimePoint now);
  /// Removes a card that could not be presented.
  void Withdraw(std::uint64_t card);
  /// Marks cards that have waited too long as unanswered.
  void GiveUpWaiting(TimePoint now);

  void OnLogLines(const std::vector<std::string>& lines);

  /// Parts of the page that the bench polls. An unchanged value is not news.
  void SetReader(const Json::Value& reader) { Set("reader", reader); }
  void SetSettings(const Json::Value& settings) { Set("settings", settings); }
  void SetLearning(bool on) { Set("learning", on); }
  void SetNotice(const std::string& notice) { Set("notice", notice); }

  /// The news for a page that has this revision and this many log lines: {"revision": N, "line": N,
  /// "snapshot": everything but the log, if it has changed, "lines": [LINE...]}. A page that has nothing yet,
  /// or has the numbers of an earlier bench, gets everything.
  Json::Value NewsSince(std::uint64_t revision, std::uint64_t line) const;

 private:
  struct Card {
    std::uint64_t number;
    std::string time;
    std::string uid;
    std::string kind;
    std::string how;
    std::string outcome;
    TimePoint since;
  };

  void Set(const char* part, const Json::Value& value);
  void NoteTransition(const std::string& to);
  /// The newest card that waits for its outcome. An older card with the same UID was suppressed or never
  /// read, so it gets no outcome.
  Card* FindWaiting(const std::function<bool(const Card&)>& matches);
  void Conclude(const std::string& uid, const std::string& outcome);
  Json::Value Snapshot() const;

  mutable std::mutex mMutex;
  std::uint64_t mRevision = 1;
  std::uint64_t mNumber = 0;  ///< of cards, transitions, feedback events
  std::set<EStream> mOpen;
  std::string mReason = "not reached yet";
  std::string mState;
  std::deque<Json::Value> mTransitions;
  std::deque<Json::Value> mFeedback;
  std::deque<Card> mCards;
  std::map<int, Json::Value> mSignals;
  std::uint64_t mAlive = 0;
  std::string mAliveTime;
  Json::Value mParts{Json::objectValue};
  std::deque<std::string> mLines;
  std::uint64_t mLineCount = 0;  ///< lines so far; mLines has the last ones
};
