#pragma once

#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "src/components/rfidhsm.h"
#include "src/components/rfidhsmactionhandler.h"
#include "tests/components/temporarystore.h"
#include "tools/virtual-nfc/preload/inprocess.h"

/// The daemon without RPC, from the state machine down to the simulated kernel; the test plays the
/// supervisor. It is Disabled after construction. The destructor stops the machine and closes the reader. A
/// daemon that hangs aborts the program, because its threads cannot be joined.
class DaemonInProcess {
 public:
  enum class State { Uninitialized, Disabled, Enabled, Error, FatalError };

  /// Limit for everything that the daemon does, generous for a sanitizer on a busy machine.
  static constexpr std::chrono::milliseconds kBound = std::chrono::seconds(60);
  /// The daemon's timeout for an answer of the kernel.
  static constexpr std::chrono::milliseconds kAnswerTimeout{50};

  /// `watchPeriod`: how often the daemon checks polling that finds nothing.
  explicit DaemonInProcess(std::chrono::milliseconds watchPeriod = std::chrono::hours(1));
  ~DaemonInProcess();
  DaemonInProcess(const DaemonInProcess&) = delete;
  DaemonInProcess& operator=(const DaemonInProcess&) = delete;

  /// The supervisor's requests. Return the last reported state once the machine is at rest.
  State Enable();
  State Disable();
  /// Waits until the machine is at rest.
  State Settle();

  /// Holds a card to the reader just long enough to be found once. Returns its UID.
  std::string Tap();
  /// Holds a card to the reader until it is notified or a new state is reported. Returns false on timeout.
  bool ReadsCardOrTells(std::chrono::milliseconds timeout);

  /// From now on the reader may be on at the end, because the kernel refuses to switch it off.
  void AllowOnAfterTheEnd() { mMayStayOn = true; }

  /// Ends all faults: clears the rules and plugs the reader in.
  void Repair();

  size_t CountTold() const;
  bool WaitForMoreTold(size_t than) const;
  bool WasTold(State state, size_t since) const;
  bool WasNotified(const std::string& uid) const;
  /// Whether the daemon notified a UID that no card had.
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
  std::vector<std::string> mPresented;  // used by the test's thread only, like the next one
  size_t mSettled = 0;                  // states told when Settle returned
  bool mMayStayOn = false;
  std::future<void> mRun;
};
