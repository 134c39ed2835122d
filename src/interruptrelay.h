#pragma once

#include <functional>
#include <thread>

/// Blocks SIGINT on the creating thread during its lifetime. Threads started in that time keep it blocked for
/// good. A SIGINT that arrives in that time takes its default action when this object is destroyed.
class CInterruptBlock {
 public:
  CInterruptBlock();
  ~CInterruptBlock();
  CInterruptBlock(const CInterruptBlock&) = delete;
  CInterruptBlock& operator=(const CInterruptBlock&) = delete;
};

/// Catches SIGINT during its lifetime and passes it on outside signal context: the handler only counts, and a
/// thread ("rfid-signal") calls the hook with the signal's number.
///
/// SIGINT is blocked on the creating thread and on every thread that it starts meanwhile, so another thread
/// takes the signal. On a thread whose netlink command waits for the reader, it would interrupt the command
/// and leave kernel and reader in disagreement. One relay at a time, created and destroyed on one thread.
/// Afterwards SIGINT has its default action again.
class CInterruptRelay {
 public:
  /// Throws std::system_error when it cannot be set up. The hook must outlive the relay.
  explicit CInterruptRelay(const std::function<void(int)>& hook);
  ~CInterruptRelay();
  CInterruptRelay(const CInterruptRelay&) = delete;
  CInterruptRelay& operator=(const CInterruptRelay&) = delete;

 private:
  std::thread mThread;
};
