#include "connectionwatch.h"

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <mutex>
#include <utility>

#include "rpcqueue.h"

/// Shared with the wait for a change, which ends some time after the watch.
struct CConnectionWatch::State : std::enable_shared_from_this<State> {
  void WaitForChange(grpc_connectivity_state from);
  void TakeChange();

  std::shared_ptr<CRpcQueue> queue;
  std::string address;
  std::function<bool()> isConnected;
  std::function<void()> lost;
  std::mutex mutex;                        // guards the rest; held while the two functions run
  std::shared_ptr<grpc::Channel> channel;  // none before the first Begin and after the end
  bool isWatching = false;
  grpc_connectivity_state state = GRPC_CHANNEL_IDLE;  // when the wait for a change began
};

/// Called with the mutex held.
void CConnectionWatch::State::WaitForChange(grpc_connectivity_state from) {
  state = from;
  isWatching = queue->Begin([self = shared_from_this()](bool) { self->TakeChange(); },
                            [&](grpc::CompletionQueue* ends, void* tag) {
                              channel->NotifyOnStateChange(from, std::chrono::system_clock::time_point::max(),
                                                           ends, tag);
                            });
}

void CConnectionWatch::State::TakeChange() {
  const std::lock_guard<std::mutex> lock(mutex);
  isWatching = false;
  if (!channel) {
    return;
  }
  const bool wasConnected = state == GRPC_CHANNEL_READY;
  const auto now = channel->GetState(!wasConnected);
  // If the server ended before this connection was up, it has closed the main connection, too.
  if (!wasConnected && now != GRPC_CHANNEL_TRANSIENT_FAILURE &&
      (now != GRPC_CHANNEL_READY || isConnected())) {
    WaitForChange(now);
  } else {
    lost();
  }
}

CConnectionWatch::CConnectionWatch(std::shared_ptr<CRpcQueue> queue, const std::string& address,
                                   std::function<bool()> isConnected, std::function<void()> lost)
    : mState(std::make_shared<State>()) {
  mState->queue = std::move(queue);
  mState->address = address;
  mState->isConnected = std::move(isConnected);
  mState->lost = std::move(lost);
}

CConnectionWatch::~CConnectionWatch() {
  const std::lock_guard<std::mutex> lock(mState->mutex);
  mState->channel.reset();  // ends a wait for its change
}

void CConnectionWatch::Begin() {
  const std::lock_guard<std::mutex> lock(mState->mutex);
  if (!mState->channel) {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
    mState->channel =
        grpc::CreateCustomChannel(mState->address, grpc::InsecureChannelCredentials(), arguments);
  }
  if (!mState->isWatching) {
    mState->WaitForChange(mState->channel->GetState(true));
  }
}
