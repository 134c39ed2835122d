#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>

#include "statemachines/hsmactionhandler.h"

/// Tells the service manager (systemd) that the daemon is ready, its state, and that it still works.
///
/// The manager asks for this with the environment variables NOTIFY_SOCKET and WATCHDOG_USEC. Without the
/// first one, every operation does nothing. Threads: any; each operation sends one datagram. libsystemd is
/// not used, because it brings six more libraries.
class CServiceNotify {
 public:
  /// Reads the environment.
  CServiceNotify();

  bool IsWanted() const { return !mSocket.empty(); }

  /// The machine enters `state`; `error` says what failed last, or is empty. Sends the status line. Also
  /// reports in the first state that the daemon is ready, and in the last state that it is stopping.
  void EnterState(const std::string& state, const std::string& error) const;
  /// Sends one line for people: the state, then a colon and the detail unless that is empty.
  void TellState(const std::string& state, const std::string& detail) const;

  /// The manager ends a daemon that does not feed its watchdog for this long. Zero: it has no watchdog.
  std::chrono::microseconds GetWatchdogPeriod() const { return mWatchdogPeriod; }
  void FeedWatchdog() const { Send("WATCHDOG=1"); }

 private:
  void Send(const std::string& assignment) const;

  std::string mSocket;
  std::chrono::microseconds mWatchdogPeriod{0};
};

/// Feeds a watchdog while the machine's thread takes events and the NFC monitor makes progress.
///
/// Each feed needs new proof from both, so a thread that hangs for longer than the watchdog's period starves
/// it. A shorter wait for the kernel does not. A machine that has ended gives no proof, so an end that hangs
/// starves the watchdog, too.
///
/// Threads: Look on one thread; it never blocks.
class CWatchdogFeeder {
 public:
  /// `hasMonitorMoved` says whether the monitor made progress since it was asked last.
  CWatchdogFeeder(std::shared_ptr<IHsmInterface> machine, std::function<bool()> hasMonitorMoved,
                  std::function<void()> feed);

  /// Call it several times per watchdog period.
  void Look();

 private:
  bool HasMachineMoved();

  const std::shared_ptr<IHsmInterface> mMachine;
  const std::function<bool()> mHasMonitorMoved;
  const std::function<void()> mFeed;
  std::future<bool> mProbe;  ///< of the event that waits in the machine's queue
  bool mMachineMoved = false;
  bool mMonitorMoved = false;
};
