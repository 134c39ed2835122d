#pragma once

#include <string>
#include <vector>

#include "rfidctl/daemon.h"

/// The commands that ask the daemon one thing. Each blocks until the daemon has answered (a minute at most)
/// and prints what there is to print. They throw Unreachable.
EExit PrintState(const Daemon& daemon);
EExit Enable(const Daemon& daemon);
EExit Disable(const Daemon& daemon);
EExit SetLearning(const Daemon& daemon, bool on);
EExit InjectToken(const Daemon& daemon, const std::string& uid);
EExit PrintLogLevel(const Daemon& daemon);
EExit SetLogLevel(const Daemon& daemon, const std::string& level);  ///< one of LogLevelNames

/// Prints what the station's diagnostics service, at `diagnostics.address`, knows of each signal, a line
/// each.
EExit PrintSignals(const Daemon& diagnostics);

/// From the most to the least verbose.
std::vector<std::string> LogLevelNames();
