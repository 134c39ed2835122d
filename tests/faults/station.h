#pragma once

#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "components/temporarystore.h"
#include "src/components/rfidhsm.h"
#include "src/components/rfidhsmactionhandler.h"
#include "tools/virtual-nfc/preload/inprocess.h"

/// The daemon from its machine down to the simulated kernel, without RPC; the test plays the supervisor.
/// Disabled after construction. The destructor interrupts the machine, joins it and closes the reader. A
/// daemon that hangs ends the program: nothing could be joined.
class Station {
 public:
  enum class State { Uninitialized, Disabled, Enabled, Error, FatalError };

  /// Nothing of the daemon may take longer; generous for a sanitizer on a busy machine.
  static constexpr std::chrono::milliseconds kBound = std::chrono::seconds(60);
  /// The daemon waits that long for an answer that never comes.
  static constexpr std::chrono::milliseconds kAnswerTimeout{50};

  /// `watchPeriod`: for how long the daemon trusts polling that finds nothing.
  explicit Station(std::chrono::milliseconds watchPeriod = std::chrono::hours(1));
  ~Station();
  Station(const Station&) = delete;
  Station& operator=(const Station&) = delete;

  /// The supervisor's requests: the state told last when the machine rests again.
  State Enable();
  State Disable();
  /// Waits until the machine rests.
  State Settle();

  /// A card that lies on the reader long enough to be found once. Its UID.
  std::string Tap();
  /// Puts a card on the reader until it is notified, or a state is told that Settle did not know yet (true),
  /// or the time is over (false).
  bool ReadsCardOrTells(std::chrono::milliseconds timeout);

  /// The kernel does not let the reader be switched off at the end.
  void AllowOnAfterTheEnd() { mMayStayOn = true; }

  /// Ends all faults: no rules, and the reader is there.
  void Repair();

  size_t CountTold() const;
  bool WaitForMoreTold(size_t than) const;
  bool WasTold(State state, size_t since) const;
  bool WasNotified(const std::string& uid) const;
  /// Whether a UID was notified that no card had.
  bool HasInvented() const;

  virtualnfc::InProcessVirtualNfc mKernel;

 private:
  template <typename Event, typename... Payload>
  bool Post(Payload... payload);
  void Tell(State state);
  virtualnfc::Tag NextCard();

  TemporaryStore mStore;
  std::shared_ptr<CRfidReader> mReader;
  std::shared_ptr<CRfidHsmActionHandler> mHandler;
  std::shared_ptr<CRfidHsm> mMachine;
  mutable std::mutex mMutex;
  mutable std::condition_variable mChanged;
  std::vector<State> mTold;             // guarded by mMutex
  std::vector<std::string> mNotified;   // guarded by mMutex
  std::vector<std::string> mPresented;  // the test's thread only, as the next
  size_t mSettled = 0;                  // states told when Settle returned
  bool mMayStayOn = false;
  std::future<void> mRun;
};
