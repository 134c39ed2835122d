#include "src/rfid.h"

#include <csignal>
#include <functional>
#include <utility>

#include "framework/hubconfig.h"
#include "framework/log.h"
#include "framework/thread.h"
#include "src/components/nfcnetlink.h"
#include "src/components/rfidhsm.h"
#include "src/interruptrelay.h"
#include "statemachines/utils/statemachinesutility.h"

namespace {

constexpr int kPeerTimeoutSeconds = 5;

/// What a SIGINT does. Set by the application that runs, and never cleared.
std::function<void(int)> signalHook;

}  // namespace

CRfid::CRfid(const std::string& root, std::chrono::milliseconds pollWatchPeriod) {
  mAppCommunicationHost = std::make_shared<AppCommunicationHost<GrpcBackend>>(root + "etc/plex.json");
  mProcessControlService = std::make_shared<CProcessControlService>();
  mRfidService = std::make_shared<CRfidService>();
  const auto settings = HubConfig::Create("settings", "/", {});
  const auto standaloneList = HubConfig::Create("rfid_standalone", "/", {});
  mRfidConfig = std::make_shared<CRfidConfig>(settings, standaloneList);
  mRfidReader = std::make_shared<CRfidReader>(
      std::make_shared<CNfcNetlink>(CNfcNetlink::Settings{.watchPeriod = pollWatchPeriod}));
  const CInterruptBlock block;  // the threads started from here on must not take signals
  const auto feedbackClient = mAppCommunicationHost->CreateClient<IFeedback>("Feedback");
  feedbackClient->SetConnectTimeout(kPeerTimeoutSeconds);
  feedbackClient->SetCallTimeout(kPeerTimeoutSeconds);
  mActionHandler =
      std::make_shared<CRfidHsmActionHandler>(mRfidReader, mRfidConfig, feedbackClient->GetInterface());
  mStateMachine = std::make_shared<CRfidHsm>(mActionHandler);
  ConnectInterfaces();
  AddServices();
}

CRfid::~CRfid() {
  // Handler, service and machine hold each other through these. The machine has stopped and needs them no
  // more.
  for (auto* hook :
       {&mActionHandler->ExtUninitializedRsp, &mActionHandler->ExtDisabledRsp, &mActionHandler->ExtEnabledRsp,
        &mActionHandler->ExtErrorRsp, &mActionHandler->ExtFatalErrorRsp, &mActionHandler->ExtSendAlive}) {
    *hook = nullptr;
  }
}

void CRfid::ConnectInterfaces() {
  ConnectIProcessControl(mActionHandler, mProcessControlService, mStateMachine);
  ConnectIStatemachine();
  ConnectIRfid();
}

void CRfid::ConnectIStatemachine() const {
  mActionHandler->ExtRfidToken = [this](const ipc::MRfidToken& token) {
    LOG_TRACE("RfidToken");
    LOG_INFO("RfidToken notif: '{}':'{}'", token.uid(), ERfidAuthStateToString(token.auth_state()));
    mRfidService->RfidToken(token);
  };
  mActionHandler->ExtRfidLearningToken = [this](const std::string& uid) {
    LOG_TRACE("RfidLearningToken");
    LOG_INFO("Sending RfidLearningToken notif: {}", uid);
    mRfidService->RfidLearningToken(uid);
  };
}

void CRfid::ConnectIRfid() const {
  mRfidService->IRfidEnableLearning = [this](bool enable) {
    LOG_TRACE("IRfidEnableLearning");
    return PostAndWait<ExtOnEnableLearning>(mStateMachine, enable);
  };
  mRfidService->IRfidInjectToken = [this](const std::string& uid) {
    LOG_TRACE("IRfidInjectToken");
    LOG_WARNING("Simulating token swipe with uid {}", uid);
    return PostAndWait<ExtOnInjectToken>(mStateMachine, uid);
  };
}

void CRfid::AddServices() {
  mAppCommunicationHost->AddService<IGenericControl>("RfidGenCtrl", mProcessControlService);
  mAppCommunicationHost->AddService<IRfid>("Rfid", mRfidService);
  mAppCommunicationHost->AddService<ILogConfig>("RfidLog", Log::CreateLogConfigService());
  mDiagnosticsClient = std::make_shared<CDiagnosticsCommClient>();
  CDiagnosticsCommClient::Initialize(*mAppCommunicationHost);
}

void CRfid::Run() {
  StartCommunication();
  RunStateMachine();
  mActionHandler->CloseReader();  // while its diagnostics can still be published
  StopCommunication();
}

void CRfid::StartCommunication() {
  const CInterruptBlock block;
  mAppCommunicationHost->StartServices();
  mServerThread = std::thread([host = mAppCommunicationHost] {
    SetThreadName("rpc-server");
    host->RunServer();
  });
  mNotificationThread = std::thread([host = mAppCommunicationHost] {
    SetThreadName("rpc-notify");
    host->HandleClientNotifications();
  });
}

void CRfid::RunStateMachine() const {
  signalHook = [this](int signal) {
    if (signal == SIGINT) {
      mActionHandler->RequestTermination();
    }
  };
  LOG_INFO("Starting state machine");
  {
    const CInterruptRelay relay(signalHook);
    mStateMachine->Run();
  }
  LOG_INFO("State machine stopped");
}

void CRfid::StopCommunication() {
  mProcessControlService.reset();
  CDiagnosticsCommClient::Terminate();
  mAppCommunicationHost->Stop();
  mServerThread.join();
  mNotificationThread.join();
}
