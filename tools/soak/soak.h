#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "ledger.h"
#include "tools/harness/station.h"

/// Does at random what happens at a charging station and keeps book of every swipe. It knows from the outside
/// alone (kernel, answers, notifications) what the daemon has to make of a swipe, and enters what it made of
/// it.
///
/// One thread. Every wait ends.
class Soak {
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

  const Ledger& Book() const { return mLedger; }
  std::string Charts() const;
  /// Keeps the daemon's logs; the folder that they are in.
  std::string KeepLogs();

 private:
  using Clock = std::chrono::steady_clock;

  struct Card {
    std::string uid;  ///< as it is notified
    bool valid = true;
    virtualnfc::Tag tag;
  };
  /// When a card was seen: not before, and not after.
  struct Sighting {
    Clock::time_point first;
    Clock::time_point last;
  };
  struct Series {
    const char* title;
    std::vector<size_t> values;
  };

  // The kinds of things that happen.
  void Tap() { Swipe(RandomCard(), std::chrono::milliseconds(0), EFailure::None); }
  void Hold() { Swipe(RandomCard(), std::chrono::milliseconds(100 + Below(4000)), EFailure::None); }
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

  void Enable();
  void Disable();
  void StopDaemon(int signal);
  /// Whether the reader can go on reading, or the supervisor is told.
  enum class EFailure { None, Possible, Certain };
  void Swipe(const Card& card, std::chrono::milliseconds hold, EFailure failure);
  void PlugIn();
  /// Holds the card; the longest time for which the reader did not see it.
  Clock::duration KeepCard(std::chrono::milliseconds hold);
  /// Waits until the reader has done what it has begun and everything is notified that came of it; false when
  /// the supervisor was told of an error.
  bool Settle();
  /// Waits for everything that the daemon has sent; false when it refuses, not being enabled.
  bool Fence();
  /// To Enabled after an error that cost `card` its notification, or did not.
  void RecoverWith(const Card& card);
  /// Enters one swipe: notified, if what was expected was told (empty: nothing is), or else `otherwise`.
  void EnterOutcome(const std::string& expected, EOutcome otherwise, bool mayRepeat = false);
  std::string ExpectedNotification(const Card& card) const;

  // What the supervisor was told in the present action.
  void Collect();
  size_t Told(const std::string& what) const;
  bool AwaitTold(const std::string& what, size_t count = 1);
  bool IsToldOfError() const { return Told("Error") + Told("FatalError") > 0; }

  bool Require(bool condition, const std::string& what);
  Card RandomCard();
  Card NewCard();
  unsigned Below(unsigned bound) { return std::uniform_int_distribution<unsigned>(0, bound - 1)(mRandom); }
  virtualnfc::DeviceStatus Reader() { return mStation.Kernel().GetStatus().Device(); }

  std::mt19937 mRandom;
  /// In a session of its own: a Ctrl-C at the terminal is for this program alone.
  Station mStation;
  Ledger mLedger;
  std::vector<Card> mKnown;
  std::vector<Card> mLatest;              ///< put to the reader lately, to come again
  std::set<std::string> mPermitted;       ///< in the local list
  std::map<std::string, Sighting> mSeen;  ///< since polling was stopped last
  std::vector<std::string> mTold;
  bool mOcpp = false;
  bool mFree = false;
  bool mLearning = false;
  bool mIsBroken = false;  ///< the settings do not parse; the daemon has those that did
  unsigned mFences = 0;
  unsigned mCards = 0;
  const char* mAction = "begin";

  Series mMemory{"resident memory, KiB", {}};
  Series mDescriptors{"open descriptors", {}};
  Series mThreads{"threads", {}};
  std::string mMarks;  ///< 'R' where the daemon was started
  unsigned mRestarts = 0;
  unsigned mRestartsMarked = 0;
};
