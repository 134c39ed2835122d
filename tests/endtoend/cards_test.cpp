#include <csignal>

#include "tests/endtoend/daemontest.h"

using namespace virtualnfc;
using ::testing::AnyOf;
using ::testing::Each;
using ::testing::ElementsAre;

namespace {

class Cards : public DaemonTest {
 protected:
  void SetUp() override {
    WriteFile("hub/rfid_standalone.json", R"({"Tokens": [{"RfidTokenUid": "04A12B5C"}]})");
    StartDaemon();
    EnableDaemon();
  }
  /// Waits until the signal has this value. The daemon repeats a value that a slow peer did not take in time.
  ::testing::AssertionResult IsShown(ipc::ESignalIdentifier signal, const std::string& value) const {
    return Becomes(
        [&] {
          const auto values = mPeers->SignalValues(signal);
          return values.empty() ? "" : values.back();
        },
        value);
  }
};

}  // namespace

TEST_F(Cards, ACardInTheListIsAcceptedOnceForAsLongAsItStays) {
  // If the daemon is not scheduled for longer than it remembers a card, it rightly reports the card again.
  for (int attempt = 0; attempt < 3; ++attempt) {
    const auto earlier = static_cast<std::ptrdiff_t>(mPeers->FeedbackEvents().size());
    const auto found = mKernel->GetStatus().Device().targetsFound;
    mKernel->PresentTag(MakeTag(TagKind::Mifare, "04A12B5C"));
    ASSERT_TRUE(Notifies("token 04A12B5C ERfidUidInStandAloneList"));
    EXPECT_TRUE(IsShown(ipc::ESignalRfidLastUid, "04A12B5C"));
    EXPECT_TRUE(IsShown(ipc::ESignalRfidLastTechnology, "MIFARE"));
    EXPECT_TRUE(mKernel->WaitFor(
        [&](const Status& status) { return status.Device().targetsFound >= found + 10; }, kLongestWait));
    mKernel->RemoveTags();
    EXPECT_TRUE(mKernel->WaitFor([](const Status& status) { return status.Device().polling; }, kLongestWait));
    EXPECT_EQ(mSupervisor->Inject("11223344"), "Ok");  // comes after every effect of the card
    ASSERT_TRUE(Notifies("token 11223344 ERfidUidNotInList"));
    if (mSupervisor->Notified().size() == 2) {
      auto events = mPeers->FeedbackEvents();
      events.erase(events.begin(), events.begin() + earlier);
      EXPECT_THAT(events, ElementsAre(ipc::EFbTokenScanned, ipc::EFbAuthAccepted, ipc::EFbTokenScanned,
                                      ipc::EFbAuthRejected));
      break;
    }
    EXPECT_EQ(mSupervisor->Disable(), "Ok");  // forgets the cards
    EXPECT_TRUE(Notifies("Disabled"));
    EnableDaemon();
  }
  EXPECT_EQ(mSupervisor->Notified().size(), 2U);
  EXPECT_TRUE(IsShown(ipc::ESignalRfidState, "Polling"));
  EXPECT_TRUE(IsShown(ipc::ESignalRfidLastUid, "11223344"));
  EXPECT_TRUE(IsShown(ipc::ESignalRfidLastTechnology, "InjectedToken"));
}

TEST_F(Cards, TheEndOfTheDaemonIsShownInTheDiagnostics) {
  EXPECT_TRUE(IsShown(ipc::ESignalRfidState, "Polling"));
  EXPECT_EQ(Interrupt(), "exit 0");
  EXPECT_TRUE(IsShown(ipc::ESignalRfidState, "Uninitialized"));
}

TEST_F(Cards, EveryKindOfCardHasItsOutcome) {
  Tap(MakeTag(TagKind::Iso15693, "E007060504030201"));
  EXPECT_TRUE(Notifies("token E007060504030201 ERfidUidNotInList"));
  Tap(MakeTag(TagKind::Mifare, "04A12B5C112233"));
  EXPECT_TRUE(Notifies("token 04A12B5C112233 ERfidUidNotInList"));
  Tap(MakeTag(TagKind::Felica, "0102030405060708"));
  EXPECT_TRUE(Notifies("token  ERfidUidInvalid"));
  EXPECT_EQ(mSupervisor->Inject("XYZ"), "Ok");
  EXPECT_TRUE(Notifies("token XYZ ERfidUidInvalid"));
  EXPECT_EQ(mSupervisor->Inject("04a1b2c3"), "Ok");
  EXPECT_TRUE(Notifies("token 04A1B2C3 ERfidUidNotInList"));
  const auto log = LogUntilNow();
  for (const auto* line :
       {"info     \\(src/rfid.cpp:[0-9]+\\) Starting state machine\n",
        "trace    \\(src/rfid.cpp:[0-9]+\\) IRfidInjectToken\n",
        "warning  \\(src/rfid.cpp:[0-9]+\\) Simulating token swipe with uid 04a1b2c3\n",
        "trace    \\(src/rfid.cpp:[0-9]+\\) RfidToken\n",
        "info     \\(src/rfid.cpp:[0-9]+\\) RfidToken notif: 'XYZ':'ERfidUidInvalid'\n",
        "trace    \\(statemachines/utils/statemachinesutility.h:[0-9]+\\) IEnableCall\n",
        "trace    \\(statemachines/utils/statemachinesutility.h:[0-9]+\\) IDisableCall\n"}) {
    EXPECT_THAT(log, ::testing::ContainsRegex(line));
  }
}

TEST_F(Cards, LearningModeDivertsCardsUntilItIsSwitchedOff) {
  EXPECT_EQ(mSupervisor->Learning(true), "Ok");
  Tap("04A12B5C");
  EXPECT_TRUE(Notifies("learning 04A12B5C"));
  EXPECT_THAT(
      LogUntilNow(),
      ::testing::ContainsRegex("info     .src/rfid.cpp:[0-9]+. Sending RfidLearningToken notif: 04A12B5C\n"));
  EXPECT_EQ(mSupervisor->Learning(false), "Ok");
  Tap("11223344");
  EXPECT_TRUE(Notifies("token 11223344 ERfidUidNotInList"));
  EXPECT_THAT(mSupervisor->Notified(), Each(AnyOf("learning 04A12B5C", "token 11223344 ERfidUidNotInList")));
}

TEST_F(Cards, TheConfigurationIsFollowedWhileTheDaemonRuns) {
  WriteFile("hub/settings.json", R"({"SeccOcppActive": true})");
  Tap("04A12B5C");
  EXPECT_TRUE(Notifies("token 04A12B5C ERfidAuthDeferred"));
  WriteFile("hub/settings.json", R"({"SessionManagerChargeWithoutAuth": true})");
  Tap("11223344");
  EXPECT_TRUE(Logs("RFID Token 11223344 detected while auth disabled, not notifying."));
  WriteFile("hub/settings.json", "{}");
  WriteFile("hub/rfid_standalone.json", R"({"Tokens": [{"RfidTokenUid": "55667788"}]})");
  Tap("55667788");
  EXPECT_TRUE(Notifies("token 55667788 ERfidUidInStandAloneList"));
  EXPECT_THAT(mSupervisor->Notified(),
              Each(AnyOf("token 04A12B5C ERfidAuthDeferred", "token 55667788 ERfidUidInStandAloneList")));
}
