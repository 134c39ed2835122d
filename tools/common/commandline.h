#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

constexpr int kUsageStatus = 2;  ///< exit status for a command line that cannot be understood

/// Call this first. Adds --version, and lets the tool's own options stand after a subcommand, too.
void SetUpTool(CLI::App& app);

/// Reads the command line. If it returns a value, help, version or an error were printed: end with that exit
/// status.
std::optional<int> ParseCommandLine(CLI::App& app, int argc, char** argv);

/// Adds the argument "on|off".
void AddSwitch(CLI::App& command, bool& on);
