#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "rpclogging.h"
#include "servercall.h"
#include "serviceruntime.h"

/// Timeout for a subscriber that fell behind: it must read the messages in transit and its status within this
/// time. Without this limit, a subscriber that never reads would keep its place for ever.
constexpr std::chrono::seconds kSlowSubscriberTimeout{10};

/// The stream of one subscriber. Lives as long as its call.
class CNotificationStream final : public std::enable_shared_from_this<CNotificationStream> {
 public:
  static void Open(const ServiceRuntime& runtime, const std::shared_ptr<CServerCall>& call) {
    const auto stream = std::make_shared<CNotificationStream>(runtime, call);
    const std::weak_ptr<CNotificationStream> weak = stream;
    auto subscription = runtime.hub->Subscribe(runtime.topic, [weak] {
      if (const auto locked = weak.lock()) {
        locked->Advance();
      }
    });
    call->OnOver([stream] { stream->End(); });
    call->SendInitialMetadata();  // tells the client that it misses nothing from now on
    {
      const std::lock_guard<std::mutex> lock(stream->mMutex);
      stream->mSubscription = std::move(subscription);
    }
    stream->Advance();
  }

  CNotificationStream(const ServiceRuntime& runtime, std::shared_ptr<CServerCall> call)
      : mName(runtime.name), mHub(runtime.hub), mTopic(runtime.topic), mCall(std::move(call)) {}

 private:
  void TakeWritten(bool ok) {
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      mWriting = false;
      if (!ok) {
        mSubscription->End(CSubscription::EEnd::Left);
      }
    }
    Advance();
  }

  void End() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mFinished = true;
    mSubscription->End(CSubscription::EEnd::Left);
    mHub->Unsubscribe(mTopic, mSubscription);
  }

  // Starts the next write, or ends the stream when nothing is left to write. One write at a time: the rest
  // waits in the subscription, which is bounded.
  void Advance() {
    std::unique_lock<std::mutex> lock(mMutex);
    if (!mSubscription || mFinished) {
      return;
    }
    if (mWriting) {
      CutOffIfStuck();
      return;
    }
    const CSubscription::Next next = mSubscription->Take();
    if (next.message) {
      mWriting = true;
      lock.unlock();  // TakeWritten may need it before Write returns
      mCall->Write(*next.message, [self = shared_from_this()](bool ok) { self->TakeWritten(ok); });
    } else if (next.end != CSubscription::EEnd::No) {
      mFinished = true;
      mCall->Finish(EndStatus(next.end));
    }
  }

  // Runs with every notification.
  void CutOffIfStuck() {
    if (mSubscription->GetEnd() != CSubscription::EEnd::TooSlow) {
      return;
    }
    NoteBehind();
    if (!mIsCutOff && std::chrono::steady_clock::now() - *mBehindSince > kSlowSubscriberTimeout) {
      mIsCutOff = true;
      RpcLogging::Warning("A subscriber of " + mName + " does not read at all and was cut off");
      mCall->Cancel();
    }
  }

  void NoteBehind() {
    if (!mBehindSince) {
      mBehindSince = std::chrono::steady_clock::now();
      RpcLogging::Warning("A subscriber of " + mName + " fell behind and was disconnected");
    }
  }

  grpc::Status EndStatus(CSubscription::EEnd end) {
    switch (end) {
      case CSubscription::EEnd::TooSlow:
        NoteBehind();
        return {grpc::StatusCode::RESOURCE_EXHAUSTED,
                "the subscriber fell behind and has missed notifications"};
      case CSubscription::EEnd::TooMany:
        RpcLogging::Warning("A subscriber of " + mName + " was refused: there are too many");
        return {grpc::StatusCode::RESOURCE_EXHAUSTED, "too many subscribers"};
      case CSubscription::EEnd::Stopping:
        return {grpc::StatusCode::UNAVAILABLE, "the daemon is stopping"};
      case CSubscription::EEnd::No:
      case CSubscription::EEnd::Left:
        break;
    }
    return grpc::Status::CANCELLED;
  }

  const std::string mName;
  const std::shared_ptr<CNotificationHub> mHub;
  const std::size_t mTopic;
  const std::shared_ptr<CServerCall> mCall;
  std::mutex mMutex;  // guards the rest
  std::shared_ptr<CSubscription> mSubscription;
  bool mWriting = false;
  bool mFinished = false;
  bool mIsCutOff = false;
  std::optional<std::chrono::steady_clock::time_point> mBehindSince;
};
