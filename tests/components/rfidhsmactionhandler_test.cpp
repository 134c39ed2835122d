#include "src/components/rfidhsmactionhandler.h"

#include <gmock/gmock.h>

#include "src/components/rfidhsm.h"
#include "tests/components/fakenfcnetlink.h"
#include "tests/components/temporarystore.h"
#include "tests/framework/handover.h"
#include "tests/framework/logcapture.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

namespace {

/// Stands in for the machine: keeps what is posted.
class FakeMachine : public IHsmInterface {
 public:
  void PostEvent(const std::shared_ptr<IHsmEvent>& event) override {
    if (mFails) {
      throw std::runtime_error("no memory");
    }
    mEvents.push_back(event);
  }
  void Run() override {}
  void Stop() override {}
  bool IsRunning() const override { return true; }

  /// The events posted since the last call, with what they carry.
  std::vector<std::string> Take() {
    std::vector<std::string> names;
    for (const auto& event : std::exchange(mEvents, {})) {  // which may post others when they go
      auto name = event->GetName();
      if (const auto done = std::dynamic_pointer_cast<IntOnAuthDone>(event)) {
        name +=
            " " + done->GetPayload().uid() + " " + ERfidAuthStateToString(done->GetPayload().auth_state());
      } else if (const auto found = std::dynamic_pointer_cast<IntOnAuthTokenFound>(event)) {
        name += " " + found->GetPayload();
      } else if (const auto learned = std::dynamic_pointer_cast<IntOnLearningTokenFound>(event)) {
        name += " " + learned->GetPayload();
      }
      names.push_back(name);
    }
    return names;
  }

  bool mFails = false;

 private:
  std::vector<std::shared_ptr<IHsmEvent>> mEvents;
};

class FakeFeedback : public IFeedback {
 public:
  ipc::MResult TriggerFeedbackEvent(const ipc::MFbEventType& event) override {
    mEvents.push_back(event.type());
    if (mFail) {
      mFail();
    }
    ipc::MResult result;
    result.set_result(mAnswer);
    return result;
  }
  std::vector<int> mEvents;
  ipc::EResult mAnswer = ipc::EResultOk;
  std::function<void()> mFail;
};

class RecordingDiagnostics : public IDiagnosticsTransport {
 public:
  bool Deliver(const ipc::MSignals& signals) override {
    for (const ipc::MSignal& signal : signals.signals()) {
      mValues.Put(signal.name() + "=" + signal.value());
    }
    return true;
  }
  /// Forgets what earlier tests sent: the latest values of all signals come again to a new peer.
  void SkipTo(const std::string& value) {
    while (mValues.Take().value_or(value) != value) {
    }
  }
  /// Waits for the next `count` values.
  std::vector<std::string> Take(size_t count) {
    std::vector<std::string> values;
    while (values.size() < count) {
      values.push_back(mValues.Take().value_or("nothing"));
    }
    return values;
  }

 private:
  handover::Mailbox<std::string> mValues;
};

class ActionHandler : public ::testing::Test {
 protected:
  ActionHandler() {
    mHandler.mHsm = &mMachine;
    CDiagnosticsCommClient::Initialize(mDiagnostics);
    static const CSignalDefinition<std::string> marker{ipc::ESignalNone, "marker", "", ""};
    static int started = 0;
    const auto start = std::to_string(++started);
    CDiagnosticsSignal<std::string>(&marker).Send(start);
    mDiagnostics->SkipTo("marker=" + start);
  }
  ~ActionHandler() override { CDiagnosticsCommClient::Terminate(); }

  /// A card that is read while the daemon is enabled.
  void Read(const std::string& uid) { mController->Report({uid, "MIFARE"}); }
  void Enable() {
    mHandler.IntInitialize();
    mHandler.IntStartPolling();
    mDiagnostics->Take(2);
    mMachine.Take();
    mLog.Clear();
  }
  void Authenticate(const std::string& uid) {
    mHandler.IntAuthenticateToken(std::make_shared<IntOnAuthTokenFound>(uid));
  }

  LogCapture mLog;
  TemporaryStore mStore;
  FakeMachine mMachine;
  std::shared_ptr<FakeNfcNetlink> mController = std::make_shared<FakeNfcNetlink>();
  std::shared_ptr<FakeFeedback> mFeedback = std::make_shared<FakeFeedback>();
  std::shared_ptr<RecordingDiagnostics> mDiagnostics = std::make_shared<RecordingDiagnostics>();
  std::shared_ptr<CRfidReader> mReader = std::make_shared<CRfidReader>(mController);
  CRfidHsmActionHandler mHandler{mReader,
                                 std::make_shared<CRfidConfig>(HubConfig::Create("settings", "/", {}),
                                                               HubConfig::Create("rfid_standalone", "/", {})),
                                 mFeedback};
};

struct LifecycleAction {
  const char* operation;
  void (CRfidHsmActionHandler::*action)();
  const char* state;
  const char* message;
};

class ActionHandlerLifecycle : public ActionHandler, public ::testing::WithParamInterface<LifecycleAction> {};

}  // namespace

TEST_P(ActionHandlerLifecycle, PublishesItsStateOrKeepsTheErrorAndPostsIt) {
  const auto& c = GetParam();
  mLog.Clear();
  (mHandler.*c.action)();
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Trace).front(), HasSubstr(") CRfidHsmActionHandler::Int"));
  EXPECT_THAT(mMachine.Take(), IsEmpty());
  EXPECT_THAT(mDiagnostics->Take(1), ElementsAre(std::string("Rfid state=") + c.state));

  mController->mFail[c.operation] = 25;
  mLog.Clear();
  (mHandler.*c.action)();
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntError"));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error),
              ElementsAre(EndsWith(std::string(") ") + c.message + " Error: " + c.operation + " failed.")));

  mLog.Clear();
  mHandler.IntProcessError();
  EXPECT_THAT(mMachine.Take(), IsEmpty());
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Warning),
              ElementsAre(EndsWith(std::string(") Processing RFID error: ") + c.operation +
                                   " failed with rc: 25: Object busy.")));
  EXPECT_THAT(mDiagnostics->Take(1), ElementsAre("Rfid state=Error"));  // and nothing for the failed action

  mController->mFail[c.operation] = 19;  // replaces the first error
  (mHandler.*c.action)();
  mLog.Clear();
  mHandler.IntProcessError();
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntError", "IntFatalError"));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Warning), Contains(EndsWith(") Recovery not possible.")));

  mController->mFail.clear();
  mController->mThrow[c.operation] = "out of descriptors";
  (mHandler.*c.action)();
  mHandler.IntProcessError();
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntError"));  // another kind of failure is a recoverable error
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Warning), Contains(HasSubstr("out of descriptors with rc: 1:")));
}

INSTANTIATE_TEST_SUITE_P(
    Every, ActionHandlerLifecycle,
    ::testing::Values(LifecycleAction{"InitializeController", &CRfidHsmActionHandler::IntInitialize, "Ready",
                                      "Failed to initialze NFC controller."},
                      LifecycleAction{"DeinitializeController", &CRfidHsmActionHandler::IntDeinitialize,
                                      "Uninitialized", "Failed to deinitialize NFC controller."},
                      LifecycleAction{"StartPolling", &CRfidHsmActionHandler::IntStartPolling, "Polling",
                                      "Failed to start polling."},
                      LifecycleAction{"StopPolling", &CRfidHsmActionHandler::IntStopPolling, "Ready",
                                      "Failed to stop polling."}),
    [](const auto& action) { return action.param.operation; });

TEST(RfidError, OnlyWhatOpeningTheReaderAnewMayCureIsRecoverable) {
  std::vector<int> recoverable;
  for (int code = 0; code <= 200; ++code) {
    if (CRfidError("", code).IsRecoverable()) {
      recoverable.push_back(code);
    }
  }
  EXPECT_THAT(recoverable, ElementsAre(1, 3, 25, 31));  // libnl's failure, bad socket, busy, no device
}

TEST_F(ActionHandler, ARecoveryOpensStopsAndClosesTheReaderOnce) {
  mController->mFail["StartPolling"] = 25;
  mHandler.IntStartPolling();
  mController->mFail.clear();
  mController->mCalls.clear();
  mMachine.Take();
  mLog.Clear();
  mHandler.IntAttemptRecovery();
  EXPECT_THAT(mController->mCalls,
              ElementsAre("InitializeController", "StopPolling", "DeinitializeController"));
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntRecoveringDone"));
  EXPECT_THAT(mDiagnostics->Take(1), ElementsAre("Rfid state=Recovering"));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Warning),
              ElementsAre(EndsWith(") Attempting recovery from error StartPolling failed: Object busy.")));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Info), ElementsAre(EndsWith(") Recovery successful.")));
  mLog.Clear();
  mHandler.IntProcessError();  // the error is gone
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Warning), IsEmpty());
  mHandler.IntAttemptRecovery();  // without an error too
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntRecoveringDone"));
}

TEST_F(ActionHandler, AFailedRecoveryIsFatalAndKeepsTheErrorThatLedToIt) {
  mController->mFail["StartPolling"] = 25;
  mHandler.IntStartPolling();
  mMachine.Take();
  mController->mCalls.clear();
  mController->mFail["InitializeController"] = 12;
  mHandler.IntAttemptRecovery();
  EXPECT_THAT(mController->mCalls, ElementsAre("InitializeController"));
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntFatalError"));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error),
              Contains(EndsWith(
                  ") Recovery failed with error: InitializeController failed rc 12: Object not found")));

  mController->mFail.clear();
  mController->mThrow["StopPolling"] = "anything else";
  mHandler.IntAttemptRecovery();
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntFatalError"));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error), Contains(EndsWith(") Recovery failed with unknown error.")));
  mLog.Clear();
  mHandler.IntProcessError();
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Warning), ElementsAre(HasSubstr("StartPolling failed with rc: 25")));
}

TEST_F(ActionHandler, ACardIsNotifiedBeforeAFailureThatCameAfterItsFindStopsTheMachine) {
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
    mHandler.ExtEnabledRsp = [&] {  // on the machine's thread, as if it all came in this moment
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
  mFeedback->mFail = [this] { EXPECT_THAT(mMachine.Take(), IsEmpty()); };  // the driver is told first
  Read("04a1b2c3");
  EXPECT_THAT(mDiagnostics->Take(3),
              ElementsAre("Rfid last scanned UID=04A1B2C3", "Rfid last scanned tag technology=MIFARE",
                          "User interaction=RFID token (04A1B2C3) scanned"));
  EXPECT_THAT(mFeedback->mEvents, ElementsAre(2));
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntOnAuthTokenFound 04A1B2C3"));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Debug), Contains(EndsWith(") Learning status is: false")));
  Authenticate("04A1B2C3");
  EXPECT_THAT(mFeedback->mEvents, ElementsAre(2, 1));
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntOnAuthDone 04A1B2C3 ERfidUidNotInList"));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Debug),
              Contains(EndsWith(") Triggering Feedback with 'ERfidUidNotInList' (2)")));
  for (const auto* line : {"hsmactionhandler.cpp:[0-9]+\\) CRfidHsmActionHandler::UpdateDiagSignal",
                           "hsmactionhandler.cpp:[0-9]+\\) CRfidHsmActionHandler::TriggerFeedbackEventCall",
                           "hsmactionhandler.cpp:[0-9]+\\) CRfidHsmActionHandler::IntAuthenticateToken",
                           "hsmactionhandler.cpp:[0-9]+\\) CRfidHsmActionHandler::TriggerFeedback",
                           "reader.cpp:[0-9]+\\) CRfidReader::ValidateTokenAndNotify",
                           "reader.cpp:[0-9]+\\) CRfidReader::UpdateRecentTags",
                           "config.cpp:[0-9]+\\) CRfidConfig::GetAuthorizationEnabled",
                           "config.cpp:[0-9]+\\) CRfidConfig::GetOcppStatus",
                           "config.cpp:[0-9]+\\) CRfidConfig::AuthenticateToken"}) {
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Trace),
                Contains(MatchesRegex(std::string("\\(src/components/rfid") + line)));
  }
}

TEST_F(ActionHandler, AFailureOnTheWayToTheMachineCostsNothingButTheToken) {
  Enable();
  mMachine.mFails = true;
  Read("04A1B2C3");
  Authenticate("04A1B2C3");
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error),
              ElementsAre(EndsWith(") Failed to process token 04A1B2C3. Error: no memory."),
                          EndsWith(") Failed to authenticate token 04A1B2C3. Error: no memory.")));
}

TEST_F(ActionHandler, AnInvalidCardIsPublishedAndNotifiedWithoutFeedbackAlsoInLearningMode) {
  Enable();
  mHandler.IntEnableLearningTask(std::make_shared<ExtOnEnableLearning>(true));
  Read("xyz");
  EXPECT_THAT(mDiagnostics->Take(3), Contains("User interaction=RFID token (XYZ) scanned"));
  EXPECT_THAT(mFeedback->mEvents, IsEmpty());
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntOnAuthDone XYZ ERfidUidInvalid"));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Info), Contains(EndsWith(") IntEnableLearningTask: true")));
}

TEST_F(ActionHandler, ASimulatedSwipeGoesTheWayOfACard) {
  Enable();
  const auto start = std::chrono::steady_clock::now();
  mHandler.IntInjectToken(std::make_shared<ExtOnInjectToken>("04a1b2c3"));
  // It stays, by its times, so that a swipe that comes late is a repeat, too.
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
    std::vector<const char*> infos;
  };
  mStore.Write("rfid_standalone", R"({"Tokens": [{"RfidTokenUid": "04A1B2C3"}]})");
  for (const auto& c : std::vector<Case>{
           {"{}",
            "04A1B2C3",
            {0},
            {"IntOnAuthDone 04A1B2C3 ERfidUidInStandAloneList"},
            {") Authenticating with Standalone List.", ") Found Match!"}},
           {"{}",
            "04A1B2C4",
            {1},
            {"IntOnAuthDone 04A1B2C4 ERfidUidNotInList"},
            {") Authenticating with Standalone List.", ") UID not in list."}},
           {R"({"SeccOcppActive": true})",
            "04A1B2C3",
            {},
            {"IntOnAuthDone 04A1B2C3 ERfidAuthDeferred"},
            {") Sending for external authentication."}},
           {R"({"SeccOcppActive": true, "SessionManagerChargeWithoutAuth": true})",
            "04A1B2C3",
            {},
            {},
            {") RFID Token 04A1B2C3 detected while auth disabled, not notifying."}},
       }) {
    SCOPED_TRACE(std::string(c.settings) + c.uid);
    mStore.Write("settings", c.settings);
    mFeedback->mEvents.clear();
    mLog.Clear();
    Authenticate(c.uid);
    EXPECT_EQ(mFeedback->mEvents, c.feedback);
    EXPECT_EQ(mMachine.Take(), c.posted);
    const auto infos = mLog.Texts(Log::ELogLevel::Info);
    ASSERT_EQ(infos.size(), c.infos.size());
    for (size_t i = 0; i < infos.size(); ++i) {
      EXPECT_THAT(infos[i], EndsWith(c.infos[i]));
    }
  }
}

TEST_F(ActionHandler, AFeedbackFailureNeverCostsATokenItsAuthorisation) {
  Enable();
  mFeedback->mAnswer = ipc::EResultIllegal;
  Read("04A1B2C3");
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error),
              ElementsAre(EndsWith(") Feedback call 'EFbTokenScanned' returned illegal result.")));
  mLog.Clear();
  mFeedback->mFail = [] { throw Rpc::CommunicationException("nobody there"); };
  Authenticate("04A1B2C3");
  EXPECT_THAT(
      mLog.Texts(Log::ELogLevel::Error),
      ElementsAre(EndsWith(") Failed to trigger feedback event 'EFbAuthRejected'. Error: 'nobody there'.")));
  mFeedback->mFail = [] { throw std::runtime_error("another kind"); };
  Read("04A1B2C4");
  EXPECT_THAT(mMachine.Take(),
              ElementsAre("IntOnAuthTokenFound 04A1B2C3", "IntOnAuthDone 04A1B2C3 ERfidUidNotInList",
                          "IntOnAuthTokenFound 04A1B2C4"));
}
