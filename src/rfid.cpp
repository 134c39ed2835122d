#include "src/rfid.h"

#include <csignal>
#include <functional>
#include <utility>

#include "framework/hubconfig.h"
#include "framework/log.h"
#include "framework/thread.h"
#include "src/interruptrelay.h"
#include "statemachines/utils/statemachinesutility.h"

namespace {

constexpr int kPeerTimeoutSeconds = 5;
/// How often to check within one period of the service manager's watchdog. More checks leave a wait for the
/// kernel more time before it counts as a hang.
constexpr int kLooksPerWatchdogPeriod = 10;

/// What a SIGINT does. Set by the running application, and never cleared.
std::function<void(int)> signalHook;

}  // namespace

CRfid::CRfid(const std::string& root, std::chrono::milliseconds pollWatchPeriod) {
  const CInterruptBlock block;  // the threads started here, gRPC's too, must not take signals
  mAppCommunicationHost = std::make_shared<AppCommunicationHost<GrpcBackend>>(root + "etc/plex.json");
  mProcessControlService = std::make_shared<CProcessControlService>();
  mRfidService = std::make_shared<CRfidService>();
  const auto settings = HubConfig::Create("settings", "/", {});
  const auto standaloneList = HubConfig::Create("rfid_standalone", "/", {});
  mRfidConfig = std::make_shared<CRfidConfig>(settings, standaloneList);
  const auto netlink = std::make_shared<CNfcNetlink>(CNfcNetlink::Settings{.watchPeriod = pollWatchPeriod});
  mRfidReader = std::make_shared<CRfidReader>(netlink);
  const auto feedbackClient = mAppCommunicationHost->CreateClient<IFeedback>("Feedback");
  feedbackClient->SetConnectTimeout(kPeerTimeoutSeconds);
  feedbackClient->SetCallTimeout(kPeerTimeoutSeconds);
  mActionHandler =
      std::make_shared<CRfidHsmActionHandler>(mRfidReader, mRfidConfig, feedbackClient->GetInterface());
  const auto stateMachine = std::make_shared<CRfidHsm>(mActionHandler);
  mStateMachine = stateMachine;
  ConnectInterfaces();
  ConnectServiceManager(*stateMachine, netlink);
  AddServices();
}

CRfid::~CRfid() {
  // Handler, service and machine hold each other through these. The machine has stopped and no longer needs
  // them.
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

void CRfid::ConnectServiceManager(CRfidHsm& machine, const std::shared_ptr<CNfcNetlink>& netlink) {
  if (!mServiceNotify.IsWanted()) {
    return;
  }
  machine.OnEntry = [this](const std::string& state) {
    const auto error = mActionHandler->GetLastError();
    mServiceNotify.EnterState(state, error ? error->what() : "");
  };
  mActionHandler->ExtEnabledRsp = [this, tellSupervisor = std::move(mActionHandler->ExtEnabledRsp)] {
    tellSupervisor();
    mServiceNotify.TellState("Enabled", "reading cards");
  };
  if (const auto period = mServiceNotify.GetWatchdogPeriod(); period.count() > 0) {
    const auto feeder = std::make_shared<CWatchdogFeeder>(
        mStateMachine, [netlink] { return netlink->HasMonitorMoved(); },
        [this] { mServiceNotify.FeedWatchdog(); });
    mWatchdogCall = mActionHandler->AddCall([feeder] { feeder->Look(); }, std::chrono::steady_clock::now(),
                                            period / kLooksPerWatchdogPeriod);
  }
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
  mServiceNotify.TellState("Stopped", "");
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
  if (mWatchdogCall) {
    mWatchdogCall->Cancel();
    mActionHandler->Sync();  // a call in progress uses this object and owns the machine
  }
  mProcessControlService.reset();
  CDiagnosticsCommClient::Terminate();
  mAppCommunicationHost->Stop();
  mServerThread.join();
  mNotificationThread.join();
}
