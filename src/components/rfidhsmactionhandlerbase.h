#pragma once

#include <functional>
#include <memory>
#include <string>

#include "src/components/rfidhsmevents.h"
#include "statemachines/hsmactionhandler.h"

/// The actions that the RFID machine's reactions call, and the callbacks that they invoke.
///
/// Threads: all of it runs on the machine's thread. No exception escapes an action: each reports its failures
/// as events (IntError, IntFatalError). Callbacks are bound before the machine runs. Unbound ones are
/// skipped.
class CRfidHsmActionHandlerBase : public CHsmActionHandlerBase {
 public:
  using EnableRequest = ExtEnableReq;
  using DisableRequest = ExtDisableReq;

  std::function<void()> ExtDisabledRsp;
  std::function<void()> ExtEnabledRsp;
  std::function<void()> ExtErrorRsp;
  std::function<void()> ExtFatalErrorRsp;
  std::function<void(ipc::MRfidToken)> ExtRfidToken;
  std::function<void(std::string)> ExtRfidLearningToken;
  std::function<void()> ExtSendAlive;
  std::function<void()> ExtUninitializedRsp;

  /// One attempt; posts IntRecoveringDone or IntFatalError.
  virtual void IntAttemptRecovery() = 0;
  /// Posts IntOnAuthDone when the token is to be notified.
  virtual void IntAuthenticateToken(const std::shared_ptr<IntOnAuthTokenFound>& event) = 0;
  virtual void IntDeinitialize() = 0;
  virtual void IntEnableLearningTask(const std::shared_ptr<ExtOnEnableLearning>& event) = 0;
  virtual void IntInitialize() = 0;
  virtual void IntStopAliveTimer() = 0;
  /// Posts IntFatalError when the kept error allows no recovery.
  virtual void IntProcessError() = 0;
  virtual void IntInjectToken(const std::shared_ptr<ExtOnInjectToken>& event) = 0;
  virtual void IntStartAliveTimer() = 0;
  virtual void IntStartPolling() = 0;
  virtual void IntStopPolling() = 0;
};
