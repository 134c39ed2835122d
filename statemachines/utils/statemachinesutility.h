#pragma once

#include <memory>
#include <utility>

#include "framework/log.h"
#include "ipc/common.pb.h"
#include "statemachines/hsmactionhandler.h"

/// Posts an event and blocks until the machine dispatches it. Returns Ok when a state took the event, and
/// Illegal when no state did. Does not wait for the reaction's actions.
///
/// Any thread but the machine's own. No timeout while the machine runs. Once it has stopped, the wait ends
/// with std::future_error (broken promise).
template <typename Event, typename... Payload>
ipc::MResult PostAndWait(const std::shared_ptr<IHsmInterface>& stateMachine, Payload&&... payload) {
  const auto event = std::make_shared<Event>(std::forward<Payload>(payload)...);
  auto handled = event->mHandled.get_future();
  stateMachine->PostEvent(event);
  ipc::MResult result;
  result.set_result(handled.get() ? ipc::EResultOk : ipc::EResultIllegal);
  return result;
}

/// Connects a process-control service with a state machine: requests become events, and the machine's
/// responses become state and alive notifications. Call it before the machine runs and the service is
/// offered.
///
/// `Handler` names its events EnableRequest and DisableRequest.
template <typename Handler, typename Service>
void ConnectIProcessControl(std::shared_ptr<Handler> handler, std::shared_ptr<Service> service,
                            std::shared_ptr<IHsmInterface> stateMachine) {
  service->IEnableCall = [stateMachine] {
    LOG_TRACE("IEnableCall");
    return PostAndWait<typename Handler::EnableRequest>(stateMachine);
  };
  service->IDisableCall = [stateMachine] {
    LOG_TRACE("IDisableCall");
    return PostAndWait<typename Handler::DisableRequest>(stateMachine);
  };

  const auto sendState = [service](ipc::EState value) {
    ipc::MState state;
    state.set_state(value);
    service->State(state);
  };
  handler->ExtUninitializedRsp = [sendState] {
    LOG_TRACE("ExtUninitializedRsp");
    sendState(ipc::EStateUninitialized);
  };
  handler->ExtDisabledRsp = [sendState] {
    LOG_TRACE("ExtDisabledRsp");
    sendState(ipc::EStateDisabled);
  };
  handler->ExtEnabledRsp = [sendState] {
    LOG_TRACE("ExtEnabledRsp");
    sendState(ipc::EStateEnabled);
  };
  handler->ExtErrorRsp = [sendState] {
    LOG_TRACE("ExtErrorRsp");
    sendState(ipc::EStateError);
  };
  handler->ExtFatalErrorRsp = [sendState] {
    LOG_TRACE("ExtFatalErrorRsp");
    sendState(ipc::EStateFatalError);
  };
  handler->ExtSendAlive = [service] {
    LOG_TRACE("ExtSendAlive");
    service->Alive();
  };
}
