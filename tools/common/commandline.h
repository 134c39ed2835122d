#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

constexpr int kUsageStatus = 2;  ///< exit status for a command line that cannot be understood

/// To be called first. Adds what every tool has: --version, and options of the whole tool accepted after a
/// subcommand, too.
void SetUpTool(CLI::App& app);

/// Reads the command line. A value is the exit status with which the tool ends at once: help or version were
/// printed, or an error was.
std::optional<int> ParseCommandLine(CLI::App& app, int argc, char** argv);

/// Adds the argument "on|off".
void AddSwitch(CLI::App& command, bool& on);
