#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "framework/src/diagnosticstransport.h"
#include "src/components/rfidhsmactionhandler.h"
#include "tests/components/fakenfcnetlink.h"
#include "tests/components/says.h"
#include "tests/components/temporarystore.h"
#include "tests/framework/handover.h"
#include "tests/framework/logcapture.h"

/// A machine that only stores posted events.
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

  /// The events posted since the last call, with their values.
  std::vector<std::string> Take() {
    std::vector<std::string> names;
    for (const auto& event : std::exchange(mEvents, {})) {  // destroying them may post others
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
  /// Skips the values of earlier tests: a new peer gets the latest values of all signals again.
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

/// The handler between a fake reader and a machine that only stores posted events.
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
