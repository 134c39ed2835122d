#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "framework/diagnostics.h"
#include "framework/rpc.h"
#include "src/components/nfcnetlink.h"
#include "src/components/rfidconfig.h"
#include "src/components/rfidhsm.h"
#include "src/components/rfidhsmactionhandler.h"
#include "src/components/rfidreader.h"
#include "src/processcontrolservice.h"
#include "src/rfidservice.h"
#include "src/servicenotify.h"
#include "statemachines/hsmactionhandler.h"

/// The application: builds every component of the daemon, wires them together, runs and stops them.
///
/// Threads: construction, Run and destruction on the main thread; Run lends it to the state machine.
class CRfid {
 public:
  /// `root` is a plain prefix of file paths. Throws when a component cannot be built (the RPC configuration
  /// above all). `pollWatchPeriod`: see CNfcNetlink::Settings.
  explicit CRfid(const std::string& root,
                 std::chrono::milliseconds pollWatchPeriod = std::chrono::seconds(20));
  ~CRfid();
  CRfid(const CRfid&) = delete;
  CRfid& operator=(const CRfid&) = delete;

  /// Blocks until SIGINT has stopped the machine and everything that runs has ended. Called once.
  void Run();

 private:
  void ConnectInterfaces();
  void ConnectIStatemachine() const;
  void ConnectIRfid() const;
  void ConnectServiceManager(CRfidHsm& machine, const std::shared_ptr<CNfcNetlink>& netlink);
  void AddServices();
  void StartCommunication();
  void RunStateMachine() const;
  void StopCommunication();

  std::shared_ptr<AppCommunicationHost<GrpcBackend>> mAppCommunicationHost;
  std::shared_ptr<CProcessControlService> mProcessControlService;
  std::shared_ptr<CDiagnosticsCommClient> mDiagnosticsClient;
  std::shared_ptr<CRfidService> mRfidService;
  std::shared_ptr<CRfidHsmActionHandler> mActionHandler;
  std::shared_ptr<IHsmInterface> mStateMachine;
  std::shared_ptr<CRfidConfig> mRfidConfig;
  std::shared_ptr<CRfidReader> mRfidReader;
  const CServiceNotify mServiceNotify;
  std::shared_ptr<CWorkerCall> mWatchdogCall;
  std::thread mServerThread;
  std::thread mNotificationThread;
};
