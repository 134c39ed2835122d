#pragma once

#include <signal.h>
#include <time.h>

#include <chrono>

/// Limits how long a system call of the creating thread may block. While it lives, a signal interrupts the
/// thread's calls each time `limit` has passed.
///
/// The signal is a real-time one of our own with an empty handler. This thread unblocks it only while a limit
/// lives and keeps it blocked afterwards, so no other call is ever interrupted. Threads: create and destroy
/// it on the thread whose call it limits. One at a time per thread.
class CCommandTimeLimit {
 public:
  explicit CCommandTimeLimit(std::chrono::milliseconds limit);
  ~CCommandTimeLimit();
  CCommandTimeLimit(const CCommandTimeLimit&) = delete;
  CCommandTimeLimit& operator=(const CCommandTimeLimit&) = delete;

  /// False when the system has no timer left. Then nothing is limited.
  bool IsArmed() const { return mIsArmed; }

 private:
  timer_t mTimer{};
  sigset_t mSignals{};
  bool mIsArmed = false;
};
