#pragma once

#include <signal.h>
#include <time.h>

#include <chrono>

/// While it lives, a system call of the creating thread that blocks for longer than the limit is interrupted
/// by a signal, once and then every `limit` again.
///
/// The signal is a real-time one of our own with an empty handler. It is unblocked on this thread only while
/// a limit lives and stays blocked on it afterwards, so that no other call of this thread is ever
/// interrupted. Threads: create and destroy it on the thread whose call it limits. One at a time per thread.
class CCommandTimeLimit {
 public:
  explicit CCommandTimeLimit(std::chrono::milliseconds limit);
  ~CCommandTimeLimit();
  CCommandTimeLimit(const CCommandTimeLimit&) = delete;
  CCommandTimeLimit& operator=(const CCommandTimeLimit&) = delete;

  /// False when the system has no timer left: nothing is limited then.
  bool IsArmed() const { return mIsArmed; }

 private:
  timer_t mTimer{};
  sigset_t mSignals{};
  bool mIsArmed = false;
};
