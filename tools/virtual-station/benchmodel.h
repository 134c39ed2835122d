#pragma once

#include <json/value.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/diagnostics.pb.h"
#include "ipc/feedback.pb.h"
#include "ipc/rfid.pb.h"

/// What the bench has seen of the station, in the form that its page shows. Knows no sockets.
///
/// Threads: any. Only WaitForNews blocks.
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

  bool IsLearning() const;

  /// How much of the news a reader has already received.
  struct Cursor {
    std::uint64_t revision = 0;
    std::uint64_t line = 0;
  };
  struct News {
    bool closed = false;             ///< there will be no more news
    bool changed = false;            ///< there is a new snapshot
    Json::Value snapshot;            ///< everything but the log, if it changed
    std::vector<std::string> lines;  ///< of the log
  };
  /// Blocks until there is news for this reader, or until the timeout.
  News WaitForNews(Cursor& cursor, std::chrono::milliseconds timeout) const;
  void Close();

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
  void Changed();
  void NoteTransition(const std::string& to);
  /// The newest card that waits for its outcome. An older card with the same UID was suppressed or never
  /// read, so it gets no outcome.
  Card* FindWaiting(const std::function<bool(const Card&)>& matches);
  void Conclude(const std::string& uid, const std::string& outcome);
  Json::Value Snapshot() const;

  mutable std::mutex mMutex;
  mutable std::condition_variable mNews;
  bool mClosed = false;
  std::uint64_t mRevision = 1;
  std::uint64_t mNumber = 0;  ///< of cards, transitions, feedback events
  std::map<EStream, bool> mOpen;
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
