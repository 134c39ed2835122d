#include <grpcpp/grpcpp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <utility>

#include "ipc/feedback.grpc.pb.h"
#include "rpcclients.h"
#include "rpclogging.h"
#include "rpcqueue.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Timeout of a call to a peer that does not answer.
constexpr milliseconds kShortTimeout{250};

std::chrono::system_clock::time_point In(milliseconds time) {
  return std::chrono::system_clock::now() + time;
}

/// Whether the status came from the peer.
bool IsAnswer(const grpc::Status& status) {
  return status.error_code() != grpc::StatusCode::DEADLINE_EXCEEDED &&
         status.error_code() != grpc::StatusCode::UNAVAILABLE;
}

/// A hanging peer must not cost every card the whole timeout: after a call that timed out, each call gets
/// kShortTimeout, connecting included, until the peer answers one.
class CFeedbackClient final : public IFeedback,
                              public IClient<IFeedback>,
                              public std::enable_shared_from_this<CFeedbackClient> {
 public:
  CFeedbackClient(std::shared_ptr<CRpcQueue> queue, std::string name, std::string address)
      : mQueue(std::move(queue)),
        mName(std::move(name)),
        mAddress(std::move(address)),
        mChannel(MakePeerChannel(mName, mAddress)),
        mStub(ipc::Feedback::NewStub(mChannel)) {}

  void SetConnectTimeout(int seconds) override { mConnectTimeout = std::max(seconds, 0); }
  void SetCallTimeout(int seconds) override { mCallTimeout = std::max(seconds, 0); }
  std::shared_ptr<IFeedback> GetInterface() override { return shared_from_this(); }

  ipc::MResult TriggerFeedbackEvent(const ipc::MFbEventType& event) override {
    static const char* const operation = "TriggerFeedbackEvent";
    const auto start = Clock::now();
    const bool hangs = mHangs;
    const milliseconds timeout = Limit(mConnectTimeout, hangs);
    const auto connectDeadline = In(timeout);
    grpc::Status status = Connect(connectDeadline, timeout);
    ipc::MResult result;
    if (status.ok()) {
      grpc::ClientContext context;
      context.set_deadline(hangs ? connectDeadline : In(Limit(mCallTimeout, false)));
      status = mQueue->Call(&result, [&](grpc::CompletionQueue* queue) {
        return mStub->AsyncTriggerFeedbackEvent(&context, event, queue);
      });
    }
    Judge(status, Clock::now() - start);
    if (!status.ok()) {
      throw Rpc::CommunicationException(mName + "." + operation + ": " + StatusText(status) + " (" +
                                        mAddress + ")");
    }
    return result;
  }

 private:
  static milliseconds Limit(int seconds, bool hangs) {
    const milliseconds timeout = std::chrono::seconds(seconds);
    return hangs ? std::min(timeout, kShortTimeout) : timeout;
  }

  // While the channel is still connecting, waits for the result. Fails at once while the peer is known to be
  // absent: gRPC keeps trying by itself.
  grpc::Status Connect(std::chrono::system_clock::time_point deadline, milliseconds timeout) {
    for (;;) {
      const grpc_connectivity_state state = mChannel->GetState(true);
      if (state == GRPC_CHANNEL_READY) {
        return grpc::Status::OK;
      }
      if (state == GRPC_CHANNEL_TRANSIENT_FAILURE || state == GRPC_CHANNEL_SHUTDOWN) {
        return {grpc::StatusCode::UNAVAILABLE, "the peer is not reachable"};
      }
      if (!mChannel->WaitForStateChange(state, deadline)) {
        return {grpc::StatusCode::DEADLINE_EXCEEDED,
                "no connection within " + std::to_string(timeout.count()) + " ms"};
      }
    }
  }

  // A call that fails at once says that the peer is absent, not that it hangs. A peer that died while a call
  // waited counts as hanging until it answers.
  void Judge(const grpc::Status& status, Clock::duration taken) {
    if (IsAnswer(status)) {
      if (mHangs.exchange(false)) {
        RpcLogging::Info(mName + " answers again (" + mAddress + ")");
      }
    } else if (taken >= kShortTimeout && !mHangs.exchange(true)) {
      RpcLogging::Warning(mName + " does not answer, each call gets " +
                          std::to_string(kShortTimeout.count()) + " ms until it does (" + mAddress + ")");
    }
  }

  const std::shared_ptr<CRpcQueue> mQueue;
  const std::string mName;
  const std::string mAddress;
  const std::shared_ptr<grpc::Channel> mChannel;
  const std::unique_ptr<ipc::Feedback::Stub> mStub;
  std::atomic<int> mConnectTimeout{5};  // seconds
  std::atomic<int> mCallTimeout{5};     // seconds
  std::atomic<bool> mHangs{false};
};

}  // namespace

std::shared_ptr<IClient<IFeedback>> CreateFeedbackClient(std::shared_ptr<CRpcQueue> queue,
                                                         const std::string& name,
                                                         const std::string& address) {
  RpcLogging::CaptureLibraries();
  return std::make_shared<CFeedbackClient>(std::move(queue), name, address);
}
