#pragma once

#include <CLI/CLI.hpp>
#include <optional>

/// Exit statuses.
constexpr int kFailureStatus = 1;
constexpr int kUsageStatus = 2;  ///< the command line cannot be understood

/// Runs a tool and returns its exit status. An exception becomes one line on standard error and
/// kFailureStatus.
int RunTool(const char* name, int (*run)(int argc, char** argv), int argc, char** argv);

/// Call this first. Adds --version, and lets the tool's own options stand after a subcommand, too.
void SetUpTool(CLI::App& app);

/// Reads the command line. If it returns a value, help, version or an error were printed: end with that exit
/// status.
std::optional<int> ParseCommandLine(CLI::App& app, int argc, char** argv);

/// Adds the argument "on|off".
void AddSwitch(CLI::App& command, bool& on);
