#include "connectionwatch.h"

#include <grpc/support/time.h>

#include <utility>

#include "framework/thread.h"

ConnectionWatch::ConnectionWatch(std::function<void()> lost)
    : mLost(std::move(lost)), mThread([this] { Run(); }) {}

ConnectionWatch::~ConnectionWatch() {
  mQueue.Shutdown();
  mThread.join();
}

void ConnectionWatch::Begin(grpc::Channel& channel) {
  if (!mWatching.exchange(true)) {
    channel.NotifyOnStateChange(GRPC_CHANNEL_READY, gpr_inf_future(GPR_CLOCK_REALTIME), &mQueue, this);
  }
}

void ConnectionWatch::Run() {
  SetThreadName("peer-watch");
  void* tag = nullptr;
  bool ok = false;
  while (mQueue.Next(&tag, &ok)) {
    mWatching = false;
    mLost();
  }
}
