#include <linux/nfc.h>

#include "tests/endtoend/daemontest.h"

using namespace virtualnfc;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

class Lifecycle : public DaemonTest {};

}  // namespace

TEST_F(Lifecycle, TheSupervisorDrivesTheDaemonAndIsToldEveryState) {
  StartDaemon();
  EXPECT_EQ(mSupervisor->Enable(), "Illegal");
  EXPECT_EQ(mSupervisor->Disable(), "Ok");
  EXPECT_TRUE(Notifies("Disabled"));
  EXPECT_EQ(mSupervisor->Disable(), "Ok");
  EXPECT_TRUE(Notifies("Disabled", 2));
  EXPECT_EQ(mSupervisor->Enable(), "Ok");
  EXPECT_TRUE(Notifies("Enabled"));
  EXPECT_TRUE(Notifies("alive", 2));
  EXPECT_EQ(mSupervisor->Enable(), "Ok");
  EXPECT_TRUE(Notifies("Enabled", 2));
  EXPECT_EQ(mKernel->GetStatus().Commands(NFC_CMD_START_POLL), 1U);
  EXPECT_EQ(mSupervisor->Disable(), "Ok");
  EXPECT_TRUE(Notifies("Disabled", 3));
  EXPECT_THAT(mSupervisor->Notified(), ElementsAre("Disabled", "Disabled", "Enabled", "Enabled", "Disabled"));
  EXPECT_FALSE(mKernel->GetStatus().Device().powered);
}

TEST_F(Lifecycle, AReaderThatStopsReadingIsReportedAndRecovered) {
  StartDaemon();
  EnableDaemon();
  mKernel->AddRule("START_POLL nth=1 errno=EPROTO");
  Tap("04A12B5C");
  EXPECT_TRUE(Notifies("Disabled"));
  // The last card may still be notified. What matters is that the supervisor is told of the error.
  auto states = mSupervisor->Notified();
  std::erase(states, "token 04A12B5C ERfidUidNotInList");
  EXPECT_THAT(states, ElementsAre("Error", "Disabled"));
  EXPECT_FALSE(mKernel->GetStatus().Device().powered);
  EXPECT_TRUE(Logs("Recovery successful."));
  EXPECT_EQ(mSupervisor->Enable(), "Ok");
  Tap("11223344");
  EXPECT_TRUE(Notifies("token 11223344 ERfidUidNotInList"));
}

TEST_F(Lifecycle, AReaderThatIsGoneIsAFatalErrorWhichOnlyARestartEnds) {
  StartDaemon();
  EnableDaemon();
  mKernel->Unplug();  // nobody asks the daemon for anything
  EXPECT_TRUE(Notifies("FatalError"));
  EXPECT_TRUE(
      Logs("Processing RFID error: Reader stopped reading tags: Error in SendAndReceiveMsgs in "
           "StopPolling. (rc 19) with rc: 1:"));
  EXPECT_TRUE(Logs("Recovery failed with error: Could find trf7970a reader. rc 31"));
  EXPECT_EQ(mSupervisor->Enable(), "Ok");
  EXPECT_EQ(mSupervisor->Disable(), "Ok");
  EXPECT_TRUE(Notifies("FatalError", 3));
  EXPECT_THAT(mSupervisor->Notified(), ElementsAre("Error", "FatalError", "FatalError", "FatalError"));
}

TEST_F(Lifecycle, WithoutAReaderEnablingFailsAndSucceedsOnceItIsThere) {
  mKernel->Unplug();
  StartDaemon();
  EXPECT_EQ(mSupervisor->Disable(), "Ok");
  EXPECT_TRUE(Notifies("Disabled"));
  EXPECT_EQ(mSupervisor->Enable(), "Ok");
  EXPECT_TRUE(Notifies("FatalError"));  // the attempt to recover finds no reader either
  EXPECT_TRUE(Logs("Could find trf7970a reader."));
  EXPECT_EQ(Interrupt(), "exit 0");
  mKernel->Plug(0);
  StartDaemon();
  EnableDaemon();
  Tap("04A12B5C");
  EXPECT_TRUE(Notifies("token 04A12B5C ERfidUidNotInList"));
}

TEST_F(Lifecycle, AThousandCyclesLeaveNothingBehind) {
  StartDaemon({"-q"});
  EnableDaemon();
  size_t descriptors = 0;
  size_t threads = 0;
  size_t memory = 0;
  for (int cycle = 0; cycle < 1000; ++cycle) {
    ASSERT_EQ(mSupervisor->Disable(), "Ok");
    ASSERT_TRUE(Notifies("Disabled"));
    ASSERT_EQ(mSupervisor->Enable(), "Ok");
    ASSERT_TRUE(Notifies("Enabled"));
    mSupervisor->Clear();
    if (cycle == 100) {
      descriptors = mDaemon->OpenDescriptors();
      threads = mDaemon->Threads();
      memory = mDaemon->Memory("VmRSS");
    }
  }
  EXPECT_LE(mDaemon->OpenDescriptors(), descriptors + 8);  // the client may have reconnected just then
  if (!kIsSanitized) {
    EXPECT_LE(mDaemon->Memory("VmRSS"), memory + 4 * 1024);
  }
  EXPECT_LE(mDaemon->Threads(), threads + kSpareThreads);
}
