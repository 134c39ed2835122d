// The end of the daemon by SIGINT, and finds that meet the command to stop polling.
#include <linux/nfc.h>

#include <csignal>
#include <functional>

#include "tools/kernelbed/kerneltest.h"

namespace {

/// Ends the daemon in several situations, one after the other; each begins with a new process.
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
    EXPECT_TRUE(mSupervisor->WaitFor("Disabled"));
  }
  void BeEnabled() {
    ASSERT_TRUE(EnableDaemon());
    EXPECT_TRUE(WaitForLog("Polling started."));
  }
  /// Returns while a command of the daemon waits for the reader.
  void EnableDuring(const std::string& failure) {
    BeDisabled();
    Reader(failure);
    Enable();
    ExpectItWaits();
  }
  void ExpectItWaits() {
    if (mStack == EStack::Digital) {
      EXPECT_TRUE(WaitForLog("Setting nfc0 power mode to: on"));
    } else {
      EXPECT_TRUE(
          Eventually([this] { return mReader->Command("state").find("failing=0") != std::string::npos; }));
    }
  }
};

/// A tag comes in the moment in which polling is stopped. The kernel's NCI stack takes 30 s for that, unless
/// it is interrupted, and if the reader is switched off at once no program of the machine ever gets an answer
/// again.
class CrossingFind : public KernelTest {
 protected:
  CrossingFind() : KernelTest(EStack::Nci) {
    StartEnabled();
    Reader("cross a2 04A1B2C3");
  }
};

class SlowReader : public KernelTest {
 protected:
  SlowReader() : KernelTest(EStack::Digital) {}
};

}  // namespace

TEST_P(End, InEveryStateTheReaderIsOffAfterwards) {
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
                             EXPECT_TRUE(mSupervisor->WaitFor("FatalError"));
                             Reader("plug");
                           }}};
  if (mStack == EStack::Nci) {
    cases.push_back({"Error", [this] {
                       BeEnabled();
                       Reader("fail discover 03");
                       Reader("put a2 04A1B2C3");
                       EXPECT_TRUE(mSupervisor->WaitFor("Error"));
                     }});
    cases.push_back({"FatalError, the reader is on", [this] {
                       Reader("take");
                       BeDisabled();
                       Reader("fail discover 03");
                       Enable();
                       EXPECT_TRUE(mSupervisor->WaitFor("FatalError"));
                       EXPECT_EQ(IsPowered(), true);
                     }});
  }
  InterruptIn(cases);
}

TEST_P(End, WhileACommandWaitsForTheReaderItIsAwaited) {
  if (mStack == EStack::Digital) {
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
  EXPECT_TRUE(WaitForLog("Stopping the polling took"));
  ExpectCardIsRead();
}

TEST_F(CrossingFind, InTheRecovery) {
  // So many events that the daemon loses some: it cannot know any more whether it polls.
  const auto other = MakeReader(EStack::Digital, nullptr);
  mDaemon->Signal(SIGSTOP);
  other->Command("plug");
  for (int i = 0; i < 400; ++i) {
    other->Command("replug");
  }
  other->Command("unplug");
  mDaemon->Signal(SIGCONT);
  EXPECT_TRUE(mSupervisor->WaitFor("Error"));
  EXPECT_TRUE(mSupervisor->WaitFor("Disabled"));
  EXPECT_TRUE(WaitForLog("Stopping the polling took"));
  Enable();
  ExpectCardIsRead();
}

TEST_F(SlowReader, DisabledAndEnabledWhileACardStaysItReadsOn) {
  StartEnabled();
  Reader("slow configure 15");
  Reader("slow framing 15");
  for (int cycle = 0; cycle < 20; ++cycle) {
    Reader("put a2 04A1B2C3");
    Disable();
    Enable();
    EXPECT_TRUE(mSupervisor->WaitFor("Enabled"));
    Reader("take");
  }
  ExpectCardIsRead();
}

TEST_F(SlowReader, WhatACommandThatNeverEndsLeavesBehindIsCuredByPluggingInAgain) {
  // Nothing tells the daemon: the kernel answers as always, and finds no card.
  StartEnabled();
  Reader("hang");
  Disable();
  Enable();
  Reader("unhang");
  Reader("unplug");
  EXPECT_TRUE(mSupervisor->WaitFor("FatalError"));
  Reader("plug");
  ExpectCured("fatal");
}

INSTANTIATE_TEST_SUITE_P(Kernel, End, ::testing::Values(EStack::Digital, EStack::Nci), StackName);
