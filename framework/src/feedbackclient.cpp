#include <grpcpp/grpcpp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <utility>

#include "ipc/feedback.grpc.pb.h"
#include "rpcclients.h"
#include "rpclogging.h"

namespace {

std::chrono::system_clock::time_point InSeconds(int seconds) {
  return std::chrono::system_clock::now() + std::chrono::seconds(seconds);
}

class FeedbackProxy final : public IFeedback {
 public:
  FeedbackProxy(std::string name, std::string address)
      : mName(std::move(name)),
        mAddress(std::move(address)),
        mChannel(MakePeerChannel(mName, mAddress)),
        mStub(ipc::Feedback::NewStub(mChannel)) {}

  ipc::MResult TriggerFeedbackEvent(const ipc::MFbEventType& event) override {
    static const char* const operation = "TriggerFeedbackEvent";
    grpc::Status status = Connect();
    ipc::MResult result;
    if (status.ok()) {
      grpc::ClientContext context;
      context.set_deadline(InSeconds(mCallTimeout));
      status = mStub->TriggerFeedbackEvent(&context, event, &result);
    }
    if (!status.ok()) {
      throw Rpc::CommunicationException(mName + "." + operation + ": " + StatusText(status) + " (" +
                                        mAddress + ")");
    }
    return result;
  }

  std::atomic<int> mConnectTimeout{5};
  std::atomic<int> mCallTimeout{5};

 private:
  // Waits while it is open whether the peer is there. A peer that is known to be absent fails at once: gRPC
  // goes on trying by itself.
  grpc::Status Connect() {
    const int timeout = mConnectTimeout;
    const auto deadline = InSeconds(timeout);
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
                "no connection within " + std::to_string(timeout) + " s"};
      }
    }
  }

  const std::string mName;
  const std::string mAddress;
  const std::shared_ptr<grpc::Channel> mChannel;
  const std::unique_ptr<ipc::Feedback::Stub> mStub;
};

class FeedbackClient final : public IClient<IFeedback> {
 public:
  explicit FeedbackClient(std::shared_ptr<FeedbackProxy> proxy) : mProxy(std::move(proxy)) {}

  void SetConnectTimeout(int seconds) override { mProxy->mConnectTimeout = std::max(seconds, 0); }
  void SetCallTimeout(int seconds) override { mProxy->mCallTimeout = std::max(seconds, 0); }
  std::shared_ptr<IFeedback> GetInterface() override { return mProxy; }

 private:
  const std::shared_ptr<FeedbackProxy> mProxy;
};

}  // namespace

std::shared_ptr<IClient<IFeedback>> CreateFeedbackClient(const std::string& name,
                                                         const std::string& address) {
  RpcLogging::CaptureLibraries();
  return std::make_shared<FeedbackClient>(std::make_shared<FeedbackProxy>(name, address));
}
