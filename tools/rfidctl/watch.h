#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>

#include "tools/rfidctl/daemon.h"

struct WatchOptions {
  unsigned count = 0;                                    ///< lines to print; 0: no limit
  std::optional<std::chrono::duration<double>> timeout;  ///< none: no limit
  std::set<std::string> kinds;                           ///< what to show; empty: everything
};

/// Prints the daemon's notifications, one line each, until the count, the timeout or a signal, or until
/// nobody reads the output any more. If the daemon goes away, waits until it is back. Call it before the
/// process has other threads. Throws Unreachable when the daemon is not there at the start.
EExit Watch(const Daemon& daemon, const WatchOptions& options);
