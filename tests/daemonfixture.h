#pragma once

#include <csignal>
#include <string>
#include <vector>

#include "tests/evidence.h"
#include "tools/harness/station.h"

/// A test with a real daemon in a `StationType`. Its waits show what the daemon did instead; a failed test
/// keeps the folder with the logs.
template <typename StationType>
class DaemonFixture : public ::testing::Test, public StationType {
 protected:
  using StationType::mDaemon;
  using StationType::mSupervisor;
  using StationType::StationType;

  ~DaemonFixture() override {
    if (HasFailure()) {
      StationType::KeepFolder();
      fprintf(stderr, "The logs are in %s\n", StationType::Path("").c_str());
    }
  }

  void StartDaemon(const std::vector<std::string>& arguments = {"-vv"}) {
    ASSERT_TRUE(StationType::StartDaemon(arguments)) << Evidence();
    mSupervisor->Clear();
  }

  void EnableDaemon() {
    ASSERT_TRUE(StationType::EnableDaemon()) << Evidence();
    mSupervisor->Clear();
  }

  /// Waits until the supervisor was notified of this `count` times. Fails at once when the daemon has ended.
  ::testing::AssertionResult Notifies(const std::string& notification, size_t count = 1) {
    const auto isTold = [&](std::chrono::seconds timeout) {
      return mSupervisor->WaitFor(notification, count, timeout);
    };
    Eventually([&] { return isTold(std::chrono::seconds(1)) || StationType::DaemonsEnd(); });
    if (isTold({})) {
      return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "no notification \"" << notification << "\"\n" << Evidence();
  }

  /// Waits until the daemon has logged this.
  ::testing::AssertionResult Logs(const std::string& text) const {
    return Becomes([this] { return StationType::Log(); }, ::testing::HasSubstr(text));
  }

  /// Ends the daemon by SIGINT and returns how it ended.
  std::string Interrupt() {
    mDaemon->Signal(SIGINT);
    return mDaemon->Wait().value_or("still running");
  }

  /// What the supervisor was told, and the end of the daemon's log.
  std::string Evidence() const {
    return "Notified: " + ::testing::PrintToString(mSupervisor->Notified()) +
           "\nThe end of the log:" + Tail(StationType::Log());
  }
};
