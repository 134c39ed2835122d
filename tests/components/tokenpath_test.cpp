#include "src/components/rfidhsm.h"
#include "tests/components/actionhandlertest.h"

using Level = Log::ELogLevel;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

TEST_F(ActionHandler, ACardIsNotifiedBeforeALaterFailureStopsTheMachine) {
  enum class EFails { WhileScanning, WhileAuthorising, Between };
  struct Case {
    EFails when;
    bool learning;
    bool free;
    bool injected;
    std::vector<std::string> told;
  };
  for (const auto& c : std::vector<Case>{
           {EFails::WhileScanning, false, false, false, {"token", "error"}},
           {EFails::WhileAuthorising, false, false, false, {"token", "error"}},
           {EFails::Between, false, false, false, {"token", "error"}},
           {EFails::WhileScanning, false, false, true, {"token", "error"}},
           {EFails::WhileAuthorising, false, false, true, {"token", "error"}},
           {EFails::WhileScanning, true, false, false, {"learned", "error"}},
           {EFails::Between, false, true, false, {"error"}},
       }) {
    SCOPED_TRACE(static_cast<int>(c.when));
    mStore.Write("settings", c.free ? R"({"SessionManagerChargeWithoutAuth": true})" : "{}");
    const auto fail = [this] { mController->Break(CRfidError("restart refused", 71)); };
    mFeedback->mEvents.clear();
    mFeedback->mFail = [&] {
      const bool scans = mFeedback->mEvents.back() == ipc::EFbTokenScanned;
      if (c.when == (scans ? EFails::WhileScanning : EFails::WhileAuthorising)) {
        fail();
      }
    };
    CRfidHsm machine(std::shared_ptr<CRfidHsmActionHandlerBase>(&mHandler, [](auto*) {}));
    std::vector<std::string> told;
    mHandler.ExtRfidToken = [&](const ipc::MRfidToken&) { told.emplace_back("token"); };
    mHandler.ExtRfidLearningToken = [&](const std::string&) { told.emplace_back("learned"); };
    mHandler.ExtErrorRsp = [&] {
      told.emplace_back("error");
      machine.Stop();
    };
    machine.PostEvent(std::make_shared<ExtDisableReq>());
    mHandler.ExtDisabledRsp = [&] { machine.PostEvent(std::make_shared<ExtEnableReq>()); };
    mHandler.ExtEnabledRsp = [&] {  // on the machine's thread: everything happens in this moment
      mHandler.IntEnableLearningTask(std::make_shared<ExtOnEnableLearning>(c.learning));
      if (c.injected) {
        machine.PostEvent(std::make_shared<ExtOnInjectToken>("04A1B2C3"));
      } else {
        Read("04A1B2C3");
      }
      if (c.when == EFails::Between) {
        fail();
      }
    };
    machine.Run();
    EXPECT_EQ(told, c.told);
    mReader->StopPolling();  // the card is forgotten
  }
}

TEST_F(ActionHandler, AValidCardIsPublishedFedBackAndPosted) {
  Enable();
  mFeedback->mFail = [this] { EXPECT_THAT(mMachine.Take(), IsEmpty()); };  // the driver gets feedback first
  Read("04a1b2c3");
  EXPECT_THAT(mDiagnostics->Take(3),
              ElementsAre("Rfid last scanned UID=04A1B2C3", "Rfid last scanned tag technology=MIFARE",
                          "User interaction=RFID token (04A1B2C3) scanned"));
  EXPECT_THAT(mFeedback->mEvents, ElementsAre(2));
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntOnAuthTokenFound 04A1B2C3"));
  EXPECT_THAT(mLog.Texts(Level::Debug), Contains(Says("Learning status is: false")));
  Authenticate("04A1B2C3");
  EXPECT_THAT(mFeedback->mEvents, ElementsAre(2, 1));
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntOnAuthDone 04A1B2C3 ERfidUidNotInList"));
  EXPECT_THAT(mLog.Texts(Level::Debug), Contains(Says("Triggering Feedback with 'ERfidUidNotInList' (2)")));
}

TEST_F(ActionHandler, TracesTheWayOfACard) {
  Enable();
  Read("04A1B2C3");
  Authenticate("04A1B2C3");
  for (const auto* line : {"hsmactionhandler.cpp:[0-9]+\\) CRfidHsmActionHandler::UpdateDiagSignal",
                           "hsmactionhandler.cpp:[0-9]+\\) CRfidHsmActionHandler::TriggerFeedbackEventCall",
                           "hsmactionhandler.cpp:[0-9]+\\) CRfidHsmActionHandler::IntAuthenticateToken",
                           "hsmactionhandler.cpp:[0-9]+\\) CRfidHsmActionHandler::TriggerFeedback",
                           "reader.cpp:[0-9]+\\) CRfidReader::ValidateTokenAndNotify",
                           "reader.cpp:[0-9]+\\) CRfidReader::UpdateRecentTags",
                           "config.cpp:[0-9]+\\) CRfidConfig::GetAuthorizationEnabled",
                           "config.cpp:[0-9]+\\) CRfidConfig::GetOcppStatus",
                           "config.cpp:[0-9]+\\) CRfidConfig::AuthenticateToken"}) {
    EXPECT_THAT(mLog.Texts(Level::Trace),
                Contains(MatchesRegex(std::string("\\(src/components/rfid") + line)));
  }
}

TEST_F(ActionHandler, AFailureOnTheWayToTheMachineCostsOnlyTheToken) {
  Enable();
  mMachine.mFails = true;
  Read("04A1B2C3");
  Authenticate("04A1B2C3");
  EXPECT_THAT(mLog.Texts(Level::Error),
              ElementsAre(Says("Failed to process token 04A1B2C3. Error: no memory."),
                          Says("Failed to authenticate token 04A1B2C3. Error: no memory.")));
}

TEST_F(ActionHandler, AnInvalidCardIsNotifiedWithoutFeedbackEvenInLearningMode) {
  Enable();
  mHandler.IntEnableLearningTask(std::make_shared<ExtOnEnableLearning>(true));
  Read("xyz");
  EXPECT_THAT(mDiagnostics->Take(3), Contains("User interaction=RFID token (XYZ) scanned"));
  EXPECT_THAT(mFeedback->mEvents, IsEmpty());
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntOnAuthDone XYZ ERfidUidInvalid"));
  EXPECT_THAT(mLog.Texts(Level::Info), Contains(Says("IntEnableLearningTask: true")));
}

TEST_F(ActionHandler, ASimulatedSwipeGoesTheWayOfACard) {
  Enable();
  const auto start = std::chrono::steady_clock::now();
  mHandler.IntInjectToken(std::make_shared<ExtOnInjectToken>("04a1b2c3"));
  // With these times the card stays, so even a late second swipe is a repeat.
  for (auto at = start; at < start + handover::kPatience; at += std::chrono::seconds(2)) {
    mReader->ValidateTokenAndNotify({"04a1b2c3", "MIFARE"}, at);
  }
  mHandler.IntInjectToken(std::make_shared<ExtOnInjectToken>("04a1b2c3"));
  EXPECT_THAT(mDiagnostics->Take(3), Contains("Rfid last scanned tag technology=InjectedToken"));
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntOnAuthTokenFound 04A1B2C3"));
}

TEST_F(ActionHandler, DecidesByConfiguration) {
  struct Case {
    const char* settings;
    const char* uid;
    std::vector<int> feedback;
    std::vector<std::string> posted;
    std::vector<::testing::Matcher<std::string>> infos;
  };
  mStore.Write("rfid_standalone", R"({"Tokens": [{"RfidTokenUid": "04A1B2C3"}]})");
  for (const auto& c : std::vector<Case>{
           {"{}",
            "04A1B2C3",
            {0},
            {"IntOnAuthDone 04A1B2C3 ERfidUidInStandAloneList"},
            {Says("Authenticating with Standalone List."), Says("Found Match!")}},
           {"{}",
            "04A1B2C4",
            {1},
            {"IntOnAuthDone 04A1B2C4 ERfidUidNotInList"},
            {Says("Authenticating with Standalone List."), Says("UID not in list.")}},
           {R"({"SeccOcppActive": true})",
            "04A1B2C3",
            {},
            {"IntOnAuthDone 04A1B2C3 ERfidAuthDeferred"},
            {Says("Sending for external authentication.")}},
           {R"({"SeccOcppActive": true, "SessionManagerChargeWithoutAuth": true})",
            "04A1B2C3",
            {},
            {},
            {Says("RFID Token 04A1B2C3 detected while auth disabled, not notifying.")}},
       }) {
    SCOPED_TRACE(std::string(c.settings) + c.uid);
    mStore.Write("settings", c.settings);
    mFeedback->mEvents.clear();
    mLog.Clear();
    Authenticate(c.uid);
    EXPECT_EQ(mFeedback->mEvents, c.feedback);
    EXPECT_EQ(mMachine.Take(), c.posted);
    EXPECT_THAT(mLog.Texts(Level::Info), ::testing::ElementsAreArray(c.infos));
  }
}

TEST_F(ActionHandler, AFeedbackFailureNeverCostsATokenItsAuthorisation) {
  Enable();
  mFeedback->mAnswer = ipc::EResultIllegal;
  Read("04A1B2C3");
  EXPECT_THAT(mLog.Texts(Level::Error),
              ElementsAre(Says("Feedback call 'EFbTokenScanned' returned illegal result.")));
  mLog.Clear();
  mFeedback->mFail = [] { throw Rpc::CommunicationException("nobody there"); };
  Authenticate("04A1B2C3");
  EXPECT_THAT(
      mLog.Texts(Level::Error),
      ElementsAre(Says("Failed to trigger feedback event 'EFbAuthRejected'. Error: 'nobody there'.")));
  mFeedback->mFail = [] { throw std::runtime_error("another kind"); };
  Read("04A1B2C4");
  EXPECT_THAT(mMachine.Take(),
              ElementsAre("IntOnAuthTokenFound 04A1B2C3", "IntOnAuthDone 04A1B2C3 ERfidUidNotInList",
                          "IntOnAuthTokenFound 04A1B2C4"));
}
