#include "connectionwatch.h"

#include <grpc/grpc_security.h>
#include <grpc/support/time.h>
#include <grpcpp/support/channel_arguments.h>

#include <utility>

namespace {

grpc_channel* MakeChannel(const std::string& address) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  grpc_channel_args plain;
  arguments.SetChannelArgs(&plain);
  grpc_channel_credentials* const credentials = grpc_insecure_credentials_create();
  grpc_channel* const channel = grpc_channel_create(address.c_str(), credentials, &plain);
  grpc_channel_credentials_release(credentials);
  return channel;
}

}  // namespace

CConnectionWatch::CConnectionWatch(const std::string& address, std::function<bool()> isConnected,
                                   std::function<void()> lost)
    : mIsConnected(std::move(isConnected)),
      mLost(std::move(lost)),
      mChange(MakeEvent(this, TakeChange)),
      mShutdown(MakeEvent(this, TakeShutdown)),
      mQueue(grpc_completion_queue_create_for_callback(&mShutdown, nullptr)),
      mChannel(MakeChannel(address)) {}

CConnectionWatch::~CConnectionWatch() {
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mIsEnding = true;
  }
  grpc_channel_destroy(mChannel);  // ends a wait for its change
  grpc_completion_queue_shutdown(mQueue);
  {
    // Calls may still run after the shutdown: wait for them.
    std::unique_lock<std::mutex> lock(mMutex);
    mCallEnded.wait(lock, [this] { return mCalls == 0; });
  }
  grpc_completion_queue_destroy(mQueue);
}

CConnectionWatch::Event CConnectionWatch::MakeEvent(CConnectionWatch* watch, void (*run)(Functor*, int)) {
  Event event{};
  event.functor_run = run;
  event.watch = watch;
  return event;
}

void CConnectionWatch::TakeShutdown(Functor* event, int /*ok*/) {
  CConnectionWatch& watch = *static_cast<Event*>(event)->watch;
  const std::lock_guard<std::mutex> lock(watch.mMutex);
  watch.NoteCallEnded();
}

void CConnectionWatch::TakeChange(Functor* event, int /*ok*/) {
  CConnectionWatch& watch = *static_cast<Event*>(event)->watch;
  if (watch.IsLost()) {
    watch.mLost();
    const std::lock_guard<std::mutex> lock(watch.mMutex);
    watch.NoteCallEnded();
  }
}

/// With mMutex held. The destructor may go on once the mutex is free.
void CConnectionWatch::NoteCallEnded() {
  --mCalls;
  mCallEnded.notify_all();
}

void CConnectionWatch::Begin() {
  const std::lock_guard<std::mutex> lock(mMutex);
  if (!mIsWatching) {
    mIsWatching = true;
    WaitForChange(grpc_channel_check_connectivity_state(mChannel, 1));
  }
}

void CConnectionWatch::WaitForChange(grpc_connectivity_state state) {
  mState = state;
  ++mCalls;
  grpc_channel_watch_connectivity_state(mChannel, state, gpr_inf_future(GPR_CLOCK_REALTIME), mQueue,
                                        &mChange);
}

/// After a change: returns true when the peer has gone; otherwise waits for the next change.
bool CConnectionWatch::IsLost() {
  const std::lock_guard<std::mutex> lock(mMutex);
  if (mIsEnding) {
    NoteCallEnded();
    return false;
  }
  const bool wasConnected = mState == GRPC_CHANNEL_READY;
  const auto state = grpc_channel_check_connectivity_state(mChannel, wasConnected ? 0 : 1);
  // If the server ended before this connection was up, it has closed the main connection, too.
  mIsWatching = !wasConnected && state != GRPC_CHANNEL_TRANSIENT_FAILURE &&
                (state != GRPC_CHANNEL_READY || mIsConnected());
  if (mIsWatching) {
    WaitForChange(state);
    NoteCallEnded();  // the former one
  }
  return !mIsWatching;
}
