#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tools/harness/station.h"

// A sanitizer has memory of its own, and is slow.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

/// How many threads the RPC library may keep after traffic. How many it does depends on how the machine
/// stalls.
constexpr size_t kSpareThreads = 32;

/// A station of its own for each test. A daemon that still runs at the end is ended in an orderly way: that
/// is when the leak checker reports, and when lines are counted.
class DaemonTest : public ::testing::Test, public Station {
 protected:
  explicit DaemonTest(const virtualnfc::VirtualNfcSettings& settings = {}) : Station("rfidd", settings) {}
  ~DaemonTest() override;
  void TearDown() override;

  void StartDaemon(const std::vector<std::string>& arguments = {"-vv"});
  void EnableDaemon();
  /// Ends the daemon by SIGINT; how it ended.
  std::string Interrupt();
  bool WaitForLog(const std::string& text) const;
  void Tap(const virtualnfc::Tag& tag);
  void Tap(const std::string& uid);
};
