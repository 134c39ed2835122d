#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>

#include "rfidctl/daemon.h"

struct WatchOptions {
  unsigned count = 0;                                    ///< lines after which to end; 0: any number
  std::optional<std::chrono::duration<double>> timeout;  ///< time after which to end
  std::set<std::string> kinds;                           ///< what to show; empty: everything
};

/// Prints what the daemon notifies, a line each, until the count, the time, a signal, or nobody reads any
/// more. A daemon that goes away is waited for. To be called before the process has other threads. Throws
/// Unreachable when the daemon is not there at the start.
EExit Watch(const Daemon& daemon, const WatchOptions& options);
