#include <future>

#include "src/components/rfidhsm.h"
#include "tests/components/actionhandlertest.h"

using Level = Log::ELogLevel;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

struct LifecycleAction {
  const char* operation;
  void (CRfidHsmActionHandler::*action)();
  const char* state;
  const char* message;

  friend void PrintTo(const LifecycleAction& action, std::ostream* out) { *out << action.operation; }
};

class ActionHandlerLifecycle : public ActionHandler, public ::testing::WithParamInterface<LifecycleAction> {};

}  // namespace

TEST_P(ActionHandlerLifecycle, PublishesItsState) {
  mLog.Clear();
  (mHandler.*GetParam().action)();
  EXPECT_THAT(mLog.Texts(Level::Trace).front(), HasSubstr(") CRfidHsmActionHandler::Int"));
  EXPECT_THAT(mMachine.Take(), IsEmpty());
  EXPECT_THAT(mDiagnostics->Take(1), ElementsAre(std::string("Rfid state=") + GetParam().state));
}

TEST_P(ActionHandlerLifecycle, KeepsTheErrorAndPostsIt) {
  const auto& c = GetParam();
  mController->mFail[c.operation] = 25;
  (mHandler.*c.action)();
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntError"));
  EXPECT_THAT(mLog.Texts(Level::Error),
              ElementsAre(Says(std::string(c.message) + " Error: " + c.operation + " failed.")));
  mHandler.IntProcessError();
  EXPECT_THAT(mMachine.Take(), IsEmpty());
  EXPECT_THAT(mLog.Texts(Level::Warning),
              ElementsAre(Says(std::string("Processing RFID error: ") + c.operation +
                               " failed with rc: 25: Object busy.")));
  EXPECT_THAT(mDiagnostics->Take(1),
              ElementsAre("Rfid state=Error"));  // the failed action itself shows nothing
}

TEST_P(ActionHandlerLifecycle, ALaterErrorReplacesTheKeptOneAndMayBeFatal) {
  const auto& c = GetParam();
  for (const int code : {25, 19}) {
    mController->mFail[c.operation] = code;
    (mHandler.*c.action)();
  }
  mHandler.IntProcessError();
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntError", "IntError", "IntFatalError"));
  EXPECT_THAT(mLog.Texts(Level::Warning), Contains(Says("Recovery not possible.")));
}

TEST_P(ActionHandlerLifecycle, AnotherKindOfFailureIsARecoverableError) {
  const auto& c = GetParam();
  mController->mThrow[c.operation] = "out of descriptors";
  (mHandler.*c.action)();
  mHandler.IntProcessError();
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntError"));
  EXPECT_THAT(mLog.Texts(Level::Warning), Contains(HasSubstr("out of descriptors with rc: 1:")));
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

TEST(RfidError, OnlyErrorsThatReopeningMayCureAreRecoverable) {
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
  mHandler.IntAttemptRecovery();
  EXPECT_THAT(mController->mCalls,
              ElementsAre("InitializeController", "StopPolling", "DeinitializeController"));
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntRecoveringDone"));
  EXPECT_THAT(mDiagnostics->Take(1), ElementsAre("Rfid state=Recovering"));
  EXPECT_THAT(mLog.Texts(Level::Warning),
              ElementsAre(Says("Attempting recovery from error StartPolling failed: Object busy.")));
  EXPECT_THAT(mLog.Texts(Level::Info), ElementsAre(Says("Recovery successful.")));
  mLog.Clear();
  mHandler.IntProcessError();
  EXPECT_THAT(mLog.Texts(Level::Warning), IsEmpty()) << "the error is forgotten";
}

TEST_F(ActionHandler, ARecoveryIsAttemptedWithoutAnErrorToo) {
  mHandler.IntAttemptRecovery();
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
  mController->mFail.clear();
  mController->mThrow["StopPolling"] = "anything else";
  mHandler.IntAttemptRecovery();
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntFatalError", "IntFatalError"));
  EXPECT_THAT(
      mLog.Texts(Level::Error),
      ElementsAre(HasSubstr("Failed to start polling."),
                  Says("Recovery failed with error: InitializeController failed rc 12: Object not found"),
                  Says("Recovery failed with unknown error.")));
  mLog.Clear();
  mHandler.IntProcessError();
  EXPECT_THAT(mLog.Texts(Level::Warning), ElementsAre(HasSubstr("StartPolling failed with rc: 25")));
}

TEST_F(ActionHandler, ARequestedTerminationIsRepeatedBehindEveryFailure) {
  mHandler.RequestTermination();
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntTerminate"));
  mController->mFail["StopPolling"] = 19;
  mHandler.IntStopPolling();
  mHandler.IntProcessError();
  mHandler.IntAttemptRecovery();
  EXPECT_THAT(mMachine.Take(), ElementsAre("IntError", "IntTerminate", "IntFatalError", "IntTerminate",
                                           "IntFatalError", "IntTerminate"));
}

TEST_F(ActionHandler, AFailureBehindTheTerminationDoesNotKeepTheMachineAlive) {
  CRfidHsm machine(std::shared_ptr<CRfidHsmActionHandlerBase>(&mHandler, [](auto*) {}));
  mHandler.ExtUninitializedRsp =
      [&] {  // the failure comes first, its consequences come behind the termination
        mController->mFail["StopPolling"] = 19;
        mHandler.IntStopPolling();
        mHandler.RequestTermination();
      };
  auto run = std::async(std::launch::async, [&] { machine.Run(); });
  EXPECT_EQ(run.wait_for(handover::kPatience), std::future_status::ready);
  machine.Stop();
}

TEST_F(ActionHandler, TheClosedReaderIsPublishedAtTheEnd) {
  Enable();
  mHandler.CloseReader();
  EXPECT_EQ(mController->mCalls.back(), "DeinitializeController");
  EXPECT_THAT(mDiagnostics->Take(1), ElementsAre("Rfid state=Uninitialized"));
  mController->mFail["DeinitializeController"] = 3;
  mHandler.CloseReader();
  EXPECT_THAT(mDiagnostics->Take(1), ElementsAre("Rfid state=Error"));
  EXPECT_THAT(mLog.Texts(Level::Error), ElementsAre(HasSubstr("Could not close the reader at the end.")));
  EXPECT_THAT(mMachine.Take(), IsEmpty()) << "nobody is there to take an event";
}
