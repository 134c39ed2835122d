#include <fmt/format.h>
#include <linux/nfc.h>

#include <algorithm>
#include <chrono>

#include "tests/endtoend/daemontest.h"

using ::testing::AllOf;
using ::testing::Each;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

class Peers : public DaemonTest {
 protected:
  /// Every card must be notified, even if the peers fail.
  void TapNewCard() {
    const auto uid = fmt::format("{:08X}", ++mCard);
    Tap(uid);
    EXPECT_TRUE(Notifies("token " + uid + " ERfidUidNotInList"));
  }

  int mCard = 0x11111111;
};

}  // namespace

TEST_F(Peers, AreOptionalAndFoundLater) {
  StartDaemon();
  StopPeers();
  EnableDaemon();
  Tap("04A12B5C");
  EXPECT_TRUE(Notifies("token 04A12B5C ERfidUidNotInList"));
  EXPECT_TRUE(Logs("Failed to trigger feedback event 'EFbTokenScanned'. Error: 'Feedback."));
  StartPeers();
  // The peer that is back gets the latest value of every signal.
  EXPECT_TRUE(Becomes([this] { return mPeers->SignalValues(ipc::ESignalRfidLastUid); },
                      AllOf(Not(IsEmpty()), Each("04A12B5C"))));
  const auto feedback = [this] {
    TapNewCard();
    return mPeers->FeedbackEvents();
  };
  EXPECT_TRUE(Becomes(feedback, Not(IsEmpty())));
}

TEST_F(Peers, OneThatDiesDuringACallDoesNotCostTheToken) {
  StartDaemon();
  EnableDaemon();
  mPeers->SetFeedbackAnswer(VirtualStation::EAnswer::Hang);
  Tap("04A12B5C");
  EXPECT_TRUE(Becomes([this] { return mPeers->FeedbackEvents(); }, Not(IsEmpty())));
  StopPeers();  // while the call waits
  EXPECT_TRUE(Notifies("token 04A12B5C ERfidUidNotInList"));
}

TEST_F(Peers, ACardThatIsHeldWhileOneNeverAnswersIsNotifiedOnce) {
  StartDaemon();
  EnableDaemon();
  mPeers->SetFeedbackAnswer(VirtualStation::EAnswer::Hang);
  mKernel->PresentTag(MakeTag(virtualnfc::TagKind::Mifare, "04A12B5C"));
  EXPECT_TRUE(Notifies("token 04A12B5C ERfidUidNotInList"));
  std::chrono::steady_clock::duration unseen{};  // at most, on a machine that stalls
  for (size_t found = 2; found <= 20; ++found) {
    const auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(mKernel->WaitFor(
        [&](const virtualnfc::Status& status) { return status.Events(NFC_EVENT_TARGETS_FOUND) >= found; },
        kLongestWait));
    unseen = std::max(unseen, std::chrono::steady_clock::now() - before);
  }
  mKernel->RemoveTags();
  Tap("11223344");  // every effect of the first card comes before this
  EXPECT_TRUE(Notifies("token 11223344 ERfidUidNotInList"));
  if (unseen < std::chrono::milliseconds(1500)) {
    EXPECT_THAT(mSupervisor->Notified(), ::testing::ElementsAre("token 04A12B5C ERfidUidNotInList",
                                                                "token 11223344 ERfidUidNotInList"));
  }
}
