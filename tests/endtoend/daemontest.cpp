#include "daemontest.h"

#include <csignal>

DaemonTest::~DaemonTest() {
  if (HasFailure()) {
    KeepFolder();
    fprintf(stderr, "the daemon's log is in %s\n", Path("log").c_str());
  }
}

void DaemonTest::TearDown() {
  if (mDaemon && !mDaemon->IsOver()) {  // nor may it have ended by itself
    EXPECT_EQ(Interrupt(), "exit 0");
  }
}

void DaemonTest::StartDaemon(const std::vector<std::string>& arguments) {
  ASSERT_TRUE(Station::StartDaemon(arguments)) << Log();
  mSupervisor->Clear();
}

void DaemonTest::EnableDaemon() {
  ASSERT_TRUE(Station::EnableDaemon());
  mSupervisor->Clear();
}

std::string DaemonTest::Interrupt() {
  mDaemon->Signal(SIGINT);
  return mDaemon->Wait().value_or("still running");
}

bool DaemonTest::WaitForLog(const std::string& text) const {
  return Eventually([&] { return Log().find(text) != std::string::npos; });
}

void DaemonTest::Tap(const virtualnfc::Tag& tag) {
  EXPECT_TRUE(Station::Tap(tag));
}

void DaemonTest::Tap(const std::string& uid) {
  Tap(MakeTag(virtualnfc::TagKind::Mifare, uid));
}
