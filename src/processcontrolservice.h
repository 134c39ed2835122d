#pragma once

#include <functional>

#include "framework/interfaces.h"

/// The daemon's side of process control.
class IProcessControl {
 public:
  virtual ~IProcessControl() = default;
  virtual void State(const ipc::MState& state) = 0;
  virtual void Alive() = 0;

  std::function<ipc::MResult()> IEnableCall;
  std::function<ipc::MResult()> IDisableCall;
};

/// Connects the supervisor's RPC service with the daemon's side of process control.
///
/// Threads: requests come on RPC threads and block until the machine has dispatched them; State comes on the
/// machine's thread, Alive on the worker's. Calling an operation whose callable is empty throws
/// std::bad_function_call.
class CProcessControlService : public IGenericControl, public IProcessControl {
 public:
  ipc::MResult Enable() override { return IEnableCall(); }
  ipc::MResult Disable() override { return IDisableCall(); }
  void State(const ipc::MState& state) override { SendState(state); }
  void Alive() override { SendAlive(); }
};
