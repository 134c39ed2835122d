#include "tools/common/daemonclient.h"

#include "tools/common/channel.h"

DaemonClient::DaemonClient(const std::string& address, std::chrono::seconds timeout, bool waitsForDaemon)
    : mTimeout(timeout),
      mWaitsForDaemon(waitsForDaemon),
      mControl(ipc::GenericControl::NewStub(OpenChannel(address, kControlService))),
      mRfid(ipc::Rfid::NewStub(OpenChannel(address, kRfidService))),
      mLogConfig(ipc::LogConfig::NewStub(OpenChannel(address, kLogService))) {}

Answer DaemonClient::Enable() {
  return Ask("it cannot be enabled in its present state",
             [this](auto* context, auto* result) { return mControl->Enable(context, {}, result); });
}

Answer DaemonClient::Disable() {
  return Ask("it cannot be disabled in its present state",
             [this](auto* context, auto* result) { return mControl->Disable(context, {}, result); });
}

Answer DaemonClient::SetLearning(bool on) {
  ipc::MEnableLearning request;
  request.set_enable(on);
  return Ask("learning needs the daemon to be enabled",
             [&](auto* context, auto* result) { return mRfid->EnableLearning(context, request, result); });
}

Answer DaemonClient::Inject(const std::string& uid) {
  ipc::MInjectToken request;
  request.set_uid(uid);
  return Ask("injecting a token needs the daemon to be enabled",
             [&](auto* context, auto* result) { return mRfid->InjectToken(context, request, result); });
}

Answer DaemonClient::SetLogLevel(int level) {
  ipc::MLogLevel request;
  request.set_level(static_cast<ipc::ELogLevel>(level));
  return Ask("it has no such log level",
             [&](auto* context, auto* result) { return mLogConfig->SetLogLevel(context, request, result); });
}

Answer DaemonClient::Ask(const std::string& refusal,
                         const std::function<grpc::Status(grpc::ClientContext*, ipc::MResult*)>& call) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + mTimeout);
  context.set_wait_for_ready(mWaitsForDaemon);
  {
    const std::lock_guard lock(mMutex);
    if (mIsCancelled) {
      return {grpc::Status::CANCELLED, ""};
    }
    mCalls.insert(&context);
  }
  ipc::MResult result;
  const auto status = call(&context, &result);
  const std::lock_guard lock(mMutex);
  mCalls.erase(&context);
  return {status, !status.ok() || result.result() == ipc::EResultOk ? "" : refusal};
}

void DaemonClient::Cancel() {
  const std::lock_guard lock(mMutex);
  mIsCancelled = true;
  for (auto* const call : mCalls) {
    call->TryCancel();
  }
}
