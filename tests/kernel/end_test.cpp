// SIGINT in every state, and tags found at the moment when polling is stopped.
#include <linux/nfc.h>

#include <csignal>
#include <functional>

#include "tests/evidence.h"
#include "tools/kernelbed/kerneltest.h"

namespace {

/// Ends the daemon in several states; each case starts a new process.
class End : public OnBothStacks {
 protected:
  struct Case {
    const char* state;
    std::function<void()> reach;
  };
  void InterruptIn(const std::vector<Case>& cases) {
    for (const auto& c : cases) {
      SCOPED_TRACE(c.state);
      StartDaemon();
      c.reach();
      mDaemon->Signal(SIGINT);
      ExpectOrderlyEnd();
    }
  }
  void BeDisabled() {
    EXPECT_EQ(mSupervisor->Disable(), "Ok");
    EXPECT_TRUE(Notifies("Disabled"));
  }
  void BeEnabled() {
    ASSERT_TRUE(EnableDaemon());
    EXPECT_TRUE(Logs("Polling started."));
  }
  /// Returns while a command of the daemon waits for the reader.
  void EnableDuring(const std::string& failure) {
    BeDisabled();
    Reader(failure);
    Enable();
    ExpectItWaits();
  }
  void ExpectItWaits() {
    if (mStack == Stack::Digital) {
      EXPECT_TRUE(Logs("Setting nfc0 power mode to: on"));
    } else {
      EXPECT_TRUE(Becomes([this] { return mReader->Command("state"); }, ::testing::HasSubstr("failing=0")));
    }
  }
};

/// The chip finds a tag at the moment when polling is stopped. The kernel's NCI stack takes 30 s for that,
/// unless a signal interrupts it. If the reader is powered down right afterwards, no program ever gets an
/// answer again.
class CrossingFind : public KernelTest {
 protected:
  CrossingFind() : KernelTest(Stack::Nci) {
    StartEnabled();
    Reader("cross a2 04A1B2C3");
  }
};

class SlowReader : public KernelTest {
 protected:
  SlowReader() : KernelTest(Stack::Digital) {}
};

}  // namespace

TEST_P(End, LeavesTheReaderOffInEveryState) {
  std::vector<Case> cases{{"Uninitialized", [] {}},
                          {"Disabled", [this] { BeDisabled(); }},
                          {"Enabled", [this] { BeEnabled(); }},
                          {"Enabled, a card is there",
                           [this] {
                             Reader("put a2 04A1B2C3");
                             BeEnabled();
                             EXPECT_TRUE(IsNotified("04A1B2C3"));
                             Reader("take");
                           }},
                          {"Disabled after Enabled",
                           [this] {
                             BeEnabled();
                             Disable();
                           }},
                          {"FatalError", [this] {
                             BeEnabled();
                             Reader("unplug");
                             EXPECT_TRUE(Notifies("FatalError"));
                             Reader("plug");
                           }}};
  if (mStack == Stack::Nci) {
    cases.push_back({"Error", [this] {
                       BeEnabled();
                       Reader("fail discover 03");
                       Reader("put a2 04A1B2C3");
                       EXPECT_TRUE(Notifies("Error"));
                     }});
    cases.push_back({"FatalError, the reader is on", [this] {
                       Reader("take");
                       BeDisabled();
                       Reader("fail discover 03");
                       Enable();
                       EXPECT_TRUE(Notifies("FatalError"));
                       EXPECT_EQ(IsPowered(), true);
                     }});
  }
  InterruptIn(cases);
}

TEST_P(End, WaitsForACommandThatWaitsForTheReader) {
  if (mStack == Stack::Digital) {
    InterruptIn({{"Switching on", [this] { EnableDuring("slow switch 1500"); }}});
    Reader("slow switch 0");
  } else {
    const auto beStopping = [this](const std::string& failure) {
      BeEnabled();
      Reader(failure);
      EXPECT_EQ(mSupervisor->Disable(), "Ok");
      ExpectItWaits();
    };
    InterruptIn({{"Switching on", [this] { EnableDuring("fail init late 1500"); }},
                 {"Switching on, in vain", [this] { EnableDuring("fail map silent"); }},
                 {"Starting", [this] { EnableDuring("fail discover late 1500"); }},
                 {"Starting, in vain", [this] { EnableDuring("fail discover silent"); }},
                 {"Stopping", [&] { beStopping("fail deactivate late 1500"); }},
                 {"Stopping, in vain", [&] { beStopping("fail deactivate silent"); }},
                 {"Recovering", [this] {
                    BeEnabled();
                    Reader("fail discover 03");
                    Reader("fail reset late 1500");
                    Reader("put a2 04A1B2C3");
                    ExpectItWaits();
                    Reader("take");
                  }}});
  }
  StartEnabled();
  ExpectCardIsRead();
}

TEST_F(CrossingFind, AtADisable) {
  Disable();
  EXPECT_EQ(IsPowered(), false);
  Enable();
  ExpectCardIsRead();
}

TEST_F(CrossingFind, AtTheEnd) {
  mDaemon->Signal(SIGINT);
  ExpectOrderlyEnd();
  StartEnabled();
  ExpectCardIsRead();
}

TEST_F(CrossingFind, WhenPollingIsRenewed) {
  EXPECT_TRUE(Logs("Stopping the polling took"));
  ExpectCardIsRead();
}

TEST_F(CrossingFind, InTheRecovery) {
  // The daemon loses some of these many events, so it no longer knows whether it polls.
  const auto other = MakeReader(Stack::Digital, nullptr);
  mDaemon->Signal(SIGSTOP);
  other->Command("plug");
  for (int i = 0; i < 400; ++i) {
    other->Command("replug");
  }
  other->Command("unplug");
  mDaemon->Signal(SIGCONT);
  EXPECT_TRUE(Notifies("Error"));
  EXPECT_TRUE(Notifies("Disabled"));
  EXPECT_TRUE(Logs("Stopping the polling took"));
  Enable();
  ExpectCardIsRead();
}

TEST_F(SlowReader, ReadsAfterDisablingAndEnablingWithACard) {
  StartEnabled();
  Reader("slow configure 15");
  Reader("slow framing 15");
  for (int cycle = 0; cycle < 20; ++cycle) {
    Reader("put a2 04A1B2C3");
    Disable();
    Enable();
    EXPECT_TRUE(Notifies("Enabled"));
    Reader("take");
  }
  ExpectCardIsRead();
}

TEST_F(SlowReader, RecoversFromAHangByPluggingInAgain) {
  // The daemon cannot notice this: the kernel answers as usual, but finds no card.
  StartEnabled();
  Reader("hang");
  Disable();
  Enable();
  Reader("unhang");
  Reader("unplug");
  EXPECT_TRUE(Notifies("FatalError"));
  Reader("plug");
  ExpectCured("fatal");
}

INSTANTIATE_TEST_SUITE_P(Kernel, End, ::testing::Values(Stack::Digital, Stack::Nci), StackName);
