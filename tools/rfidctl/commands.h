#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/common/daemonclient.h"

constexpr const char* kTool = "rfidctl";

/// The exit statuses, as the help documents them.
enum class EExit { Ok = 0, Failed = 1, Usage = 2, Unreachable = 3, Incomplete = 4 };

/// The daemon cannot be reached, or does not answer as it should.
class Unreachable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The daemon's address, and the output format.
struct Daemon {
  std::string address;
  bool json = false;
  std::string who = "daemon";  ///< for people
};

// The commands that make one request. Each blocks until it is answered, a minute at most, and prints the
// answer. Throws Unreachable, and std::runtime_error when the request is refused before the daemon sees it.

/// Makes a request that the daemon carries out or refuses.
EExit Request(const Daemon& daemon, const std::function<Answer(DaemonClient&)>& request);
EExit PrintState(const Daemon& daemon);
EExit PrintLogLevel(const Daemon& daemon);
/// Prints a line for each signal that the diagnostics service at `diagnostics.address` lists.
EExit PrintSignals(const Daemon& diagnostics);

/// From the most to the least verbose.
inline const std::vector<std::string> kLogLevels{"trace", "debug", "info", "warning", "error", "critical"};

struct WatchOptions {
  unsigned count = 0;                                    ///< lines to print; 0: no limit
  std::optional<std::chrono::duration<double>> timeout;  ///< none: no limit
  std::set<std::string> kinds;                           ///< what to show; empty: everything
};

/// Prints the daemon's notifications, one line each, until the count, the timeout or a signal, or until
/// nobody reads the output any more. If the daemon goes away, waits until it is back. Call it before the
/// process has other threads. Throws Unreachable when the daemon is not there at the start.
EExit Watch(const Daemon& daemon, const WatchOptions& options);
