#include "diagnosticstransport.h"

#include <grpcpp/grpcpp.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <utility>

#include "connectionwatch.h"
#include "framework/diagnostics.h"
#include "ipc/diagnostics.grpc.pb.h"
#include "rpcclients.h"
#include "rpclogging.h"
#include "rpcqueue.h"

namespace {

using Stub = ipc::Diagnostics::Stub;

std::string Names(const ipc::MSignals& signals) {
  std::string names = signals.signals_size() == 1 ? "the signal" : "one of the signals";
  for (const ipc::MSignal& signal : signals.signals()) {
    names += " '" + signal.name() + "'";
  }
  return names;
}

class CDiagnosticsTransport final : public IDiagnosticsTransport {
 public:
  CDiagnosticsTransport(std::shared_ptr<CRpcQueue> queue, std::string name, std::string address,
                        std::chrono::milliseconds timeout)
      : mQueue(std::move(queue)),
        mName(std::move(name)),
        mAddress(std::move(address)),
        mTimeout(timeout),
        mChannel(MakePeerChannel(mName, mAddress)),
        mStub(ipc::Diagnostics::NewStub(mChannel)) {}

  bool Deliver(const ipc::MSignals& signals) override {
    // If the connection dropped, the peer may have restarted and lost all values: send them again.
    if (mIsReachable == true && !IsChannelReady()) {
      NotePeer(false, "the connection was lost");
      return false;
    }
    if (mTakesSeveral) {
      const grpc::Status status = Call(&Stub::AsyncUpdateSignals, signals);
      if (status.error_code() != grpc::StatusCode::UNIMPLEMENTED) {
        return Take(status, signals);
      }
      mTakesSeveral = false;
    }
    return std::all_of(signals.signals().begin(), signals.signals().end(), [this](const auto& signal) {
      ipc::MSignals one;
      *one.add_signals() = signal;
      return Take(Call(&Stub::AsyncUpdateSignal, signal), one);
    });
  }

  void OnPeerLost(const std::function<void()>& lost) override {
    mWatch.emplace(
        mQueue, mAddress, [this] { return IsChannelReady(); }, lost);
  }

  void Cancel() override {
    const std::lock_guard<std::mutex> lock(mMutex);
    mCancelled = true;
    if (mContext != nullptr) {
      mContext->TryCancel();
    }
  }

 private:
  bool IsChannelReady() const { return mChannel->GetState(false) == GRPC_CHANNEL_READY; }

  template <typename Request>
  using Method = std::unique_ptr<grpc::ClientAsyncResponseReader<ipc::MResult>> (Stub::*)(
      grpc::ClientContext*, const Request&, grpc::CompletionQueue*);

  /// Returns the call's status; a peer's "illegal" counts as INVALID_ARGUMENT.
  template <typename Request>
  grpc::Status Call(Method<Request> method, const Request& request) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + mTimeout);
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      if (mCancelled) {
        return grpc::Status::CANCELLED;
      }
      mContext = &context;
    }
    ipc::MResult result;
    const grpc::Status status = mQueue->Call(
        &result, [&](grpc::CompletionQueue* queue) { return (*mStub.*method)(&context, request, queue); });
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      mContext = nullptr;
    }
    const bool isIllegal = status.ok() && result.result() != ipc::EResultOk;
    return isIllegal ? grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, "illegal") : status;
  }

  /// Returns false when the values have to be sent again.
  bool Take(const grpc::Status& status, const ipc::MSignals& signals) {
    if (IsTransient(status)) {
      NotePeer(false, StatusText(status));
      return false;
    }
    NotePeer(true);
    if (!status.ok()) {
      RpcLogging::Warning(mName + " refused " + Names(signals) + ": " + StatusText(status));
    }
    return true;
  }

  // After these failures the same value may get through later. Any other is the peer's answer to this value.
  static bool IsTransient(const grpc::Status& status) {
    const grpc::StatusCode code = status.error_code();
    return code == grpc::StatusCode::UNAVAILABLE || code == grpc::StatusCode::DEADLINE_EXCEEDED ||
           code == grpc::StatusCode::CANCELLED || code == grpc::StatusCode::RESOURCE_EXHAUSTED;
  }

  void NotePeer(bool isReachable, const std::string& reason = "") {
    if (mIsReachable != isReachable) {
      if (isReachable) {
        RpcLogging::Info(mName + " is reachable (" + mAddress + ")");
      } else {
        RpcLogging::Warning(mName + " is not reachable, values are kept: " + reason + " (" + mAddress + ")");
      }
    }
    mIsReachable = isReachable;
    if (!isReachable) {
      mTakesSeveral = true;  // another version of the peer may come back
    } else if (mWatch) {
      mWatch->Begin();
    }
  }

  const std::shared_ptr<CRpcQueue> mQueue;
  const std::string mName;
  const std::string mAddress;
  const std::chrono::milliseconds mTimeout;
  const std::shared_ptr<grpc::Channel> mChannel;
  const std::unique_ptr<Stub> mStub;
  std::optional<bool> mIsReachable;  // unknown at first; this and the next belong to the delivering thread
  bool mTakesSeveral = true;
  std::mutex mMutex;  // guards the rest
  grpc::ClientContext* mContext = nullptr;
  bool mCancelled = false;
  std::optional<CConnectionWatch> mWatch;  // destroyed first: it asks for the channel's state
};

}  // namespace

std::shared_ptr<IDiagnosticsTransport> CreateDiagnosticsTransport(std::shared_ptr<CRpcQueue> queue,
                                                                  const std::string& name,
                                                                  const std::string& address,
                                                                  std::chrono::milliseconds timeout) {
  RpcLogging::CaptureLibraries();
  return std::make_shared<CDiagnosticsTransport>(std::move(queue), name, address, timeout);
}

void CDiagnosticsCommClient::Initialize(AppCommunicationHost<GrpcBackend>& host) {
  static const char* const kPeer = "Diagnostics";
  try {
    Initialize(CreateDiagnosticsTransport(host.Queue(), kPeer, host.PeerAddress(kPeer)));
  } catch (const Rpc::ConfigurationException& e) {
    RpcLogging::Warning(std::string("Diagnostics values are not published: ") + e.what());
  }
}
