#pragma once

#include <string>
#include <vector>

#include "tools/rfidctl/daemon.h"

/// The commands that make one request. Each blocks until the daemon has answered, a minute at most, and
/// prints the answer. Throws Unreachable, and std::runtime_error when the request is refused before the
/// daemon sees it.
EExit PrintState(const Daemon& daemon);
EExit Enable(const Daemon& daemon);
EExit Disable(const Daemon& daemon);
EExit SetLearning(const Daemon& daemon, bool on);
EExit InjectToken(const Daemon& daemon, const std::string& uid);
EExit PrintLogLevel(const Daemon& daemon);
EExit SetLogLevel(const Daemon& daemon, const std::string& level);  ///< one of LogLevelNames

/// Prints a line for each signal that the diagnostics service at `diagnostics.address` lists.
EExit PrintSignals(const Daemon& diagnostics);

/// From the most to the least verbose.
std::vector<std::string> LogLevelNames();
