#include <future>

#include "tests/components/nfcnetlinktest.h"

using namespace std::chrono_literals;
using namespace virtualnfc;
using handover::Gate;
using Level = Log::ELogLevel;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST_F(NfcNetlink, TheReaderIsOffAfterEveryEnd) {
  struct Case {
    const char* name;
    std::function<void()> happen;
  };
  for (const auto& c : std::vector<Case>{
           {"polling", [] {}},
           {"opening anew failed",
            [this] {
              mKernel->AddRule("GET_DEVICE nth=1 errno=EIO");
              EXPECT_NE(ErrorOfOpen(), "");
            }},
           {"opening anew failed while the kernel still ends the old poll",
            [this] {
              mKernel->AddRule("GET_DEVICE nth=1 errno=EIO");
              mKernel->AddRule("STOP_POLL times=3 errno=EBUSY");
              EXPECT_NE(ErrorOfOpen(), "");
            }},
           {"the answer to the power request was lost",
            [this] {
              mController->StopPolling();
              mKernel->AddRule("DEV_UP drop");
              EXPECT_NE(ErrorOfStart(), "");
            }},
           {"the reader could not be switched off",
            [this] {
              mKernel->AddRule("DEV_DOWN nth=1 errno=EIO");
              EXPECT_NE(ErrorOfStop(), "");
            }},
       }) {
    for (const bool destroyed : {false, true}) {
      SCOPED_TRACE(c.name);
      Make(1h);
      Start();
      c.happen();
      if (destroyed) {
        mController.reset();
      } else {
        mController->DeinitializeController();
      }
      EXPECT_TRUE(IsOff());
      EXPECT_EQ(CountInterposedSockets(), 0);
      mKernel->ClearRules();
    }
  }
}

TEST_F(NfcNetlink, SaysAtTheEndThatTheReaderMayStayOn) {
  Start();
  mKernel->AddRule("DEV_DOWN errno=EIO");
  mController.reset();
  EXPECT_THAT(Lines(Level::Error), Contains(HasSubstr(") The reader may stay on. Error: ")));
}

TEST_F(NfcNetlink, ClosesInEveryPhaseOfTheMonitorsSetUp) {
  const auto descriptors = OpenDescriptors();
  for (int i = 0; i < 200; ++i) {
    Open();
    mController->DeinitializeController();
  }
  EXPECT_LE(OpenDescriptors(), descriptors);
}

TEST_F(NfcNetlink, ClosesWhileATagIsBeingReported) {
  Gate gate;
  mInCallback = [&] { gate.Pass(); };
  Start();
  mKernel->PresentTag(kCard);
  ASSERT_TRUE(gate.AwaitWaiting(1));
  mController->StopPolling();
  auto closed = std::async(std::launch::async, [this] { mController->DeinitializeController(); });
  gate.Open();
  closed.get();
  EXPECT_TRUE(IsOff());
}

TEST_F(NfcNetlink, ClosesWithoutAnAnswerToTheRequestThatWakesTheMonitor) {
  mKernel->AddRule("UNSPEC drop");
  Start();
  mController->DeinitializeController();
  EXPECT_TRUE(IsOff());
}

TEST_F(NfcNetlink, AMonitorThatNoRequestWakesStillEnds) {
  for (const bool reopen : {false, true}) {
    SCOPED_TRACE(reopen);
    Gate gate;
    mInCallback = [&] { gate.Pass(); };
    Start();
    mKernel->PresentTag(kCard);
    ASSERT_TRUE(gate.AwaitWaiting(1));
    mKernel->AddRule("DEVICE_ADDED close");
    mKernel->Plug();
    mLog.Clear();
    auto closed = std::async(std::launch::async, [&] { return reopen ? ErrorOfOpen() : ErrorOfClose(); });
    EXPECT_TRUE(handover::Eventually([this] { return !Lines(Level::Error).empty(); }));
    EXPECT_THAT(Lines(Level::Error), ElementsAre(HasSubstr("Failed to stop event monitor")));
    gate.Open();
    EXPECT_EQ(closed.get(), reopen ? "Could find trf7970a reader. 31 recoverable"
                                   : "Failed to stop event monitor 3 recoverable");
    EXPECT_EQ(ErrorOfClose(), "");
    EXPECT_TRUE(IsOff());
    EXPECT_EQ(CountInterposedSockets(), 0);
    mKernel->ClearRules();
    mKernel->RemoveTags();
    mKernel->Unplug(1);
  }
}

TEST_P(NfcNetlinkPolling, ATagThatComesDuringTheStopDoesNotSwitchTheReaderOn) {
  for (int round = 0; round < 20; ++round) {
    Start();
    mKernel->PresentTag(kCard);
    if (round % 2 == 0) {
      WaitFor(1);
    }
    mController->StopPolling();
    EXPECT_FALSE(mKernel->GetStatus().Device().powered);
    mController->DeinitializeController();
    EXPECT_TRUE(IsOff());
    mKernel->RemoveTags();
    ForgetReports();
  }
}
