#include "tests/endtoend/daemontest.h"

void DaemonTest::TearDown() {
  if (mDaemon && !mDaemon->IsOver()) {
    EXPECT_EQ(Interrupt(), "exit 0");
  }
}

void DaemonTest::Tap(const virtualnfc::Tag& tag) {
  EXPECT_TRUE(Station::Tap(tag)) << Evidence();
}

void DaemonTest::Tap(const std::string& uid) {
  Tap(MakeTag(virtualnfc::TagKind::Mifare, uid));
}
