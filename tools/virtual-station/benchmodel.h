#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>

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

  BenchModel();

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

  /// Sets a part of the page that the bench polls: "reader", "settings", "learning" or "log". An unchanged
  /// value is not news.
  void Set(const char* part, const Json::Value& value);

  /// The news for a page that has this revision: {"revision": N, "snapshot": everything, if it has changed}.
  Json::Value NewsSince(std::uint64_t revision) const;

 private:
  void Change();
  void Append(const char* list, Json::Value entry);
  void AppendTransition(const std::string& to);
  /// Gives the outcome to the newest card that waits for it and matches. An older card with the same UID was
  /// suppressed or never read, so it gets no outcome. Returns false if there is no such card.
  bool Conclude(const std::string& outcome, const std::function<bool(const Json::Value& card)>& matches);
  void Conclude(const std::string& outcome, const std::string& uid);

  mutable std::mutex mMutex;  ///< guards everything below
  std::uint64_t mRevision = 1;
  std::uint64_t mNumber = 0;  ///< of cards, transitions, feedback events
  std::set<EStream> mOpen;
  Json::Value mPage;  ///< what the page shows
};
