#include <fmt/format.h>

#include "daemontest.h"

using ::testing::Each;
using ::testing::HasSubstr;

namespace {

class Peers : public DaemonTest {};

}  // namespace

TEST_F(Peers, NoneIsNeededAndOneThatComesLaterIsFound) {
  StartDaemon();
  StopPeers();
  EnableDaemon();
  Tap("04A12B5C");
  EXPECT_TRUE(mSupervisor->WaitFor("token 04A12B5C ERfidUidNotInList"));
  EXPECT_TRUE(WaitForLog("Failed to trigger feedback event 'EFbTokenScanned'. Error: 'Feedback."));
  StartPeers();
  // Every signal's latest value comes to the peer that is back.
  EXPECT_TRUE(Eventually([this] { return !mPeers->SignalValues(ipc::ESignalRfidLastUid).empty(); }));
  EXPECT_THAT(mPeers->SignalValues(ipc::ESignalRfidLastUid), Each("04A12B5C"));
  EXPECT_TRUE(Eventually([this] {
    static int card = 0x11111111;
    const auto uid = fmt::format("{:08X}", ++card);
    Tap(uid);
    EXPECT_TRUE(mSupervisor->WaitFor("token " + uid + " ERfidUidNotInList"));
    return !mPeers->FeedbackEvents().empty();
  }));
}

TEST_F(Peers, OneThatNeverAnswersOrDiesMidCallDelaysATokenButDoesNotCostIt) {
  StartDaemon();
  EnableDaemon();
  mPeers->SetFeedbackAnswer(VirtualStation::EAnswer::Hang);
  Tap("04A12B5C");
  EXPECT_TRUE(mSupervisor->WaitFor("token 04A12B5C ERfidUidNotInList"));
  EXPECT_TRUE(WaitForLog("DEADLINE_EXCEEDED"));
  const auto before = mPeers->FeedbackEvents().size();
  Tap("11223344");
  EXPECT_TRUE(Eventually([&] { return mPeers->FeedbackEvents().size() > before; }));
  StopPeers();  // dies while the call waits
  EXPECT_TRUE(mSupervisor->WaitFor("token 11223344 ERfidUidNotInList"));
  StartPeers();
  mPeers->SetFeedbackAnswer(VirtualStation::EAnswer::Illegal);
  EXPECT_EQ(mSupervisor->Disable(), "Ok");
  EXPECT_TRUE(mSupervisor->WaitFor("Disabled"));
}
