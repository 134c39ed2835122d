#pragma once

#include <string>

#include "tests/daemonfixture.h"

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kIsSanitized = true;  // slow, and uses memory of its own
#else
constexpr bool kIsSanitized = false;
#endif

/// Maximum number of threads that the RPC library may keep after traffic. The actual number depends on how
/// the machine stalls.
constexpr size_t kSpareThreads = 32;

/// A new station for each test. A daemon that still runs at the end is ended by SIGINT, so that the leak
/// checker reports and coverage is written.
class DaemonTest : public DaemonFixture<Station> {
 protected:
  explicit DaemonTest(const virtualnfc::VirtualNfcSettings& settings = {})
      : DaemonFixture(NewFolder("rfidd"), settings) {}
  void TearDown() override;

  void Tap(const virtualnfc::Tag& tag);
  void Tap(const std::string& uid);
};
