#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "ipc/common.pb.h"

/// Reads one service's notifications on its own thread and subscribes again whenever the stream ends.
///
/// The callbacks are called on that thread; `onNotification` may block, which holds up the stream. `onStart`
/// is called when the service has confirmed a subscription: nothing is missed from then on. The first
/// subscription fails at once if the service is not there, unless `waitsForService`; later ones wait for it.
template <typename Service, typename Notification>
class Subscriber {
 public:
  Subscriber(std::shared_ptr<grpc::Channel> channel, std::function<void(const Notification&)> onNotification,
             std::function<void(const grpc::Status&)> onEnd, std::function<void()> onStart = {},
             bool waitsForService = false)
      : mStub(Service::NewStub(std::move(channel))),
        mOnNotification(std::move(onNotification)),
        mOnEnd(std::move(onEnd)),
        mOnStart(std::move(onStart)),
        mWaitsForService(waitsForService),
        mThread([this] { Run(); }) {}

  ~Subscriber() {
    {
      const std::lock_guard lock(mMutex);
      mStopping = true;
      if (mContext) {
        mContext->TryCancel();
      }
      mChanged.notify_all();
    }
    mThread.join();
  }

  /// Blocks until the service has confirmed or refused the first subscription, or the timeout is over.
  void WaitUntilSubscribed(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mMutex);
    mChanged.wait_for(lock, timeout, [this] { return mSubscribed; });
  }

  Subscriber(const Subscriber&) = delete;
  Subscriber& operator=(const Subscriber&) = delete;

 private:
  static constexpr auto kPause =
      std::chrono::milliseconds(200);  ///< a refusal must not be repeated in a loop

  void Run() {
    std::unique_lock lock(mMutex);
    while (!mStopping) {
      mContext = std::make_unique<grpc::ClientContext>();
      mContext->set_wait_for_ready(std::exchange(mWaitsForService, true));
      lock.unlock();
      const grpc::Status status = Read();
      mOnEnd(status);
      lock.lock();
      mChanged.wait_for(lock, kPause, [this] { return mStopping; });
    }
  }

  grpc::Status Read() {
    const auto stream = mStub->Subscribe(mContext.get(), ipc::MEmpty());
    stream->WaitForInitialMetadata();
    {
      const std::lock_guard lock(mMutex);
      mSubscribed = true;
      mChanged.notify_all();
    }
    if (mOnStart) {
      mOnStart();
    }
    Notification notification;
    while (stream->Read(&notification)) {
      mOnNotification(notification);
    }
    return stream->Finish();
  }

  const std::unique_ptr<typename Service::Stub> mStub;
  const std::function<void(const Notification&)> mOnNotification;
  const std::function<void(const grpc::Status&)> mOnEnd;
  const std::function<void()> mOnStart;
  bool mWaitsForService;  ///< used on the thread only
  std::mutex mMutex;
  std::condition_variable mChanged;
  bool mStopping = false;
  bool mSubscribed = false;
  std::unique_ptr<grpc::ClientContext> mContext;  ///< set on the thread only, with the mutex held
  std::thread mThread;
};
