#pragma once

#include <functional>
#include <thread>

/// Keeps SIGINT off the creating thread, and off every thread that is started meanwhile for as long as that
/// thread lives. One that comes meanwhile takes its default action when this goes.
class CInterruptBlock {
 public:
  CInterruptBlock();
  ~CInterruptBlock();
  CInterruptBlock(const CInterruptBlock&) = delete;
  CInterruptBlock& operator=(const CInterruptBlock&) = delete;
};

/// Catches SIGINT while it lives and hands it on outside signal context: the handler only counts, a thread
/// ("rfid-signal") waits for that and calls the hook with the signal's number.
///
/// The creating thread, and every thread that it starts meanwhile, has SIGINT blocked, so that it lands on
/// another one: a handler on a thread whose netlink command waits for the reader would interrupt the command
/// and leave kernel and reader in disagreement. One relay at a time. Created and destroyed on one thread;
/// afterwards SIGINT has its default action again.
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
