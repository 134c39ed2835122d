#include <grpcpp/grpcpp.h>

#include <mutex>
#include <utility>

#include "ipc/diagnostics.grpc.pb.h"
#include "rpcclients.h"
#include "rpclogging.h"

namespace {

class DiagnosticsTransport final : public IDiagnosticsTransport {
 public:
  DiagnosticsTransport(std::string name, std::string address, std::chrono::milliseconds timeout)
      : mName(std::move(name)),
        mAddress(std::move(address)),
        mTimeout(timeout),
        mChannel(MakePeerChannel(mName, mAddress)),
        mStub(ipc::Diagnostics::NewStub(mChannel)) {}

  bool Deliver(const ipc::MSignal& signal) override {
    // A connection that is gone may have been a peer that is gone, and with it all that it was told.
    if (!IsReachable()) {
      SetConnected(false, "the connection was lost");
      return false;
    }
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + mTimeout);
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      if (mCancelled) {
        return false;
      }
      mContext = &context;
    }
    ipc::MResult result;
    const grpc::Status status = mStub->UpdateSignal(&context, signal, &result);
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      mContext = nullptr;
    }
    if (IsPassing(status)) {
      SetConnected(false, StatusText(status));
      return false;
    }
    SetConnected(true, "");
    if (!status.ok() || result.result() != ipc::EResultOk) {
      RpcLogging::Warning(mName + " refused the signal '" + signal.name() +
                          "': " + (status.ok() ? "illegal" : StatusText(status)));
    }
    return true;
  }

  bool IsReachable() override { return !mConnected || mChannel->GetState(false) == GRPC_CHANNEL_READY; }

  void Cancel() override {
    const std::lock_guard<std::mutex> lock(mMutex);
    mCancelled = true;
    if (mContext != nullptr) {
      mContext->TryCancel();
    }
  }

 private:
  // Failures after which the same value may get through later. Any other is the peer's answer to this value.
  static bool IsPassing(const grpc::Status& status) {
    const grpc::StatusCode code = status.error_code();
    return code == grpc::StatusCode::UNAVAILABLE || code == grpc::StatusCode::DEADLINE_EXCEEDED ||
           code == grpc::StatusCode::CANCELLED || code == grpc::StatusCode::RESOURCE_EXHAUSTED;
  }

  void SetConnected(bool connected, const std::string& reason) {
    if (connected && !mConnected) {
      RpcLogging::Info(mName + " is reachable (" + mAddress + ")");
    } else if (!connected && (mConnected || !mAbsenceLogged)) {
      RpcLogging::Warning(mName + " is not reachable, values are kept: " + reason + " (" + mAddress + ")");
    }
    mConnected = connected;
    mAbsenceLogged = !connected;
  }

  const std::string mName;
  const std::string mAddress;
  const std::chrono::milliseconds mTimeout;
  const std::shared_ptr<grpc::Channel> mChannel;
  const std::unique_ptr<ipc::Diagnostics::Stub> mStub;
  bool mConnected = false;  // these two are the delivering thread's
  bool mAbsenceLogged = false;
  std::mutex mMutex;  // guards the rest
  grpc::ClientContext* mContext = nullptr;
  bool mCancelled = false;
};

}  // namespace

std::shared_ptr<IDiagnosticsTransport> CreateDiagnosticsTransport(const std::string& name,
                                                                  const std::string& address,
                                                                  std::chrono::milliseconds timeout) {
  RpcLogging::CaptureLibraries();
  return std::make_shared<DiagnosticsTransport>(name, address, timeout);
}
