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

/// What the bench has seen of the station, as its page shows it. Knows no sockets.
///
/// Threads: every function may be called from any thread; only WaitForNews blocks.
class BenchModel {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// The daemon's two streams of notifications. It counts as present while both are open.
  enum class EStream { States, Cards };
  void OnStreamOpen(EStream stream);
  void OnStreamEnd(EStream stream, const std::string& reason);

  void OnState(const std::string& state);
  void OnAlive();
  void OnToken(const ipc::MRfidToken& token);
  void OnLearningToken(const std::string& uid);
  void OnFeedback(ipc::EFbEventType event);
  void OnSignal(const ipc::MSignal& signal);

  /// A card is about to be put to the reader ("tapped") or injected; it waits for its outcome from now on.
  /// `kind` is virtual-nfc's word for it, empty for an injected one. The number is for Withdraw.
  std::uint64_t OnCardPresented(const std::string& uid, const std::string& kind, TimePoint now);
  /// It could not be presented after all.
  void Withdraw(std::uint64_t card);
  /// Cards that have waited too long count as unanswered.
  void GiveUpWaiting(TimePoint now);

  void OnLogLines(const std::vector<std::string>& lines);

  /// Parts of the page that are looked up rather than notified; what is equal to the last is no news.
  void SetReader(const Json::Value& reader) { Set("reader", reader); }
  void SetSettings(const Json::Value& settings) { Set("settings", settings); }
  void SetLearning(bool on) { Set("learning", on); }
  void SetNotice(const std::string& notice) { Set("notice", notice); }

  bool IsLearning() const;

  /// How far a reader of the news has come.
  struct Cursor {
    std::uint64_t revision = 0;
    std::uint64_t line = 0;
  };
  struct News {
    bool closed = false;             ///< there will be none any more
    bool changed = false;            ///< the snapshot is another one
    Json::Value snapshot;            ///< everything but the log, if it changed
    std::vector<std::string> lines;  ///< of the log
  };
  /// Blocks until there is something that the reader does not know, but no longer than the time.
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
  /// The newest card that waits for its outcome. An older one with the same UID was suppressed, or not read
  /// at all, and gets none.
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
  std::uint64_t mLineCount = 0;  ///< lines ever; the last ones of them are in mLines
};
