#pragma once

#include <chrono>

/// The whole process, for main(). Blocks until SIGINT has ended the daemon; returns the exit status.
/// `pollWatchPeriod`: see CNfcNetlink::Settings.
int RunDaemon(int argc, char** argv, std::chrono::milliseconds pollWatchPeriod = std::chrono::seconds(20));
