#pragma once

#include <chrono>
#include <map>
#include <random>
#include <set>
#include <string>

#include "tools/soak/cards.h"
#include "tools/soak/measurements.h"
#include "tools/soak/stationdriver.h"

/// Does at random what happens at a charging station and keeps book of every swipe. It knows from the outside
/// alone (kernel, answers, notifications) what the daemon has to make of a swipe, and enters what it made of
/// it.
///
/// One thread. Every wait ends.
class Soak : public StationDriver {
 public:
  explicit Soak(unsigned seed);

  /// Starts the daemon and enables it.
  void Begin() { Restart(); }
  /// One thing that happens, of all kinds that do. Leaves the daemon enabled.
  void Act();
  /// Ends the daemon.
  void End();

  /// Takes the resident memory, the descriptors and the threads of the daemon down.
  void Measure();

  std::string Charts() const { return mMeasurements.Charts(); }

 private:
  /// When a card was seen: not before, and not after.
  struct Sighting {
    Clock::time_point first;
    Clock::time_point last;
  };

  // The kinds of things that happen.
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

  /// Whether the reader can go on reading, or the supervisor is told.
  enum class EFailure { None, Possible, Certain };
  void Swipe(const Card& card, std::chrono::milliseconds hold, EFailure failure);
  /// To Enabled after an error that cost `card` its notification, or did not.
  void RecoverWith(const Card& card);
  /// Enters one swipe: notified, if what was expected was told (empty: nothing is), or else `otherwise`.
  void EnterOutcome(const std::string& expected, EOutcome otherwise, bool mayRepeat = false);
  std::string ExpectedNotification(const Card& card) const;

  unsigned Below(unsigned bound) { return ::Below(mRandom, bound); }

  std::mt19937 mRandom;
  Cards mCards;
  std::set<std::string> mPermitted;       ///< in the local list
  std::map<std::string, Sighting> mSeen;  ///< since polling was stopped last
  bool mOcpp = false;
  bool mFree = false;
  bool mLearning = false;
  unsigned mInjected = 0;  ///< cards without a UID
  bool mIsBroken = false;  ///< the settings do not parse; the daemon has those that did

  Measurements mMeasurements;
  unsigned mRestarts = 0;
};
