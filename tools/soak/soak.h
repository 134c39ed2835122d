#pragma once

#include <chrono>
#include <map>
#include <random>
#include <set>
#include <string>

#include "tools/soak/cards.h"
#include "tools/soak/measurements.h"
#include "tools/soak/stationdriver.h"

/// Plays random events of a charging station and accounts for every swipe. It works out the right outcome of
/// each swipe from its own actions, the kernel, the answers and the notifications, and compares.
///
/// One thread. Every wait has a timeout.
class Soak : public StationDriver {
 public:
  explicit Soak(unsigned seed);

  /// Starts the daemon and enables it.
  void Begin() { Restart(); }
  /// Plays one random event. Leaves the daemon enabled.
  void Act();
  /// Ends the daemon.
  void End();

  /// The daemon's memory, descriptors and threads, and how often it was started.
  std::string Resources() const;

 private:
  /// The time during which a card was seen.
  struct Sighting {
    Clock::time_point first;
    Clock::time_point last;
  };

  // The kinds of events.
  void Tap() { Swipe(mCards.Random(), std::chrono::milliseconds(0), EFailure::None); }
  void HoldCard() { Swipe(mCards.Random(), std::chrono::milliseconds(100 + Below(4000)), EFailure::None); }
  void Inject();
  void SwipeWhileDisabled();
  void SwipeWhileDisabling();
  void SwipeWhileSomethingFails();
  void LoseEvents();
  void Unplug();
  void Replug();
  void PollingEnds();
  void ForeignTag();
  void LoseFind();
  void RestartPeers();
  void FeedbackHangs();
  void Reconfigure();
  void BreakConfiguration();
  void ToggleLearning();
  void Restart();

  /// Whether an event stops the reading of cards, so that the supervisor must be told.
  enum class EFailure { None, Possible, Certain };
  void Swipe(const Card& card, std::chrono::milliseconds hold, EFailure failure);
  /// Enables the daemon after an error. The notification of `card` may or may not have been lost.
  void RecoverWith(const Card& card);
  /// Records one swipe: as notified if the expected notification came (empty: none is expected), otherwise as
  /// `otherwise`.
  void EnterOutcome(const std::string& expected, EOutcome otherwise, bool mayRepeat = false);
  std::string ExpectedNotification(const Card& card) const;

  unsigned Below(unsigned bound) { return ::Below(mRandom, bound); }

  std::mt19937 mRandom;
  Cards mCards;
  std::set<std::string> mPermitted;       ///< in the local list
  std::map<std::string, Sighting> mSeen;  ///< since polling last stopped
  bool mOcpp = false;
  bool mFree = false;
  bool mLearning = false;
  unsigned mInjected = 0;  ///< cards without a UID
  bool mIsBroken = false;  ///< the settings do not parse, so the daemon keeps the last good ones

  Measurements mMeasurements;
  unsigned mStarts = 0;
};
