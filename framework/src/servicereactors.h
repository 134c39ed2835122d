#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "rpclogging.h"
#include "services.h"

/// How requests and subscriptions of any service meet gRPC's callback interface. gRPC's threads only hand
/// over here; what a request does runs on the service's own threads.

inline grpc::Status StoppingStatus() {
  return {grpc::StatusCode::UNAVAILABLE, "the daemon is stopping"};
}

/// One request, from its arrival to its answer, which is given exactly once.
template <typename Request, typename Response>
class CUnaryRequest final : public IRequest {
 public:
  using Handler = std::function<Response(const Request&)>;

  CUnaryRequest(std::string name, Handler handler, const Request& request, Response* response,
                grpc::CallbackServerContext* context)
      : mName(std::move(name)),
        mHandler(std::move(handler)),
        mRequest(request),
        mResponse(response),
        mContext(context),
        mReactor(context->DefaultReactor()) {}

  grpc::ServerUnaryReactor* Reactor() const { return mReactor; }

  void Run() override {
    if (IsPointless()) {
      return Answer({grpc::StatusCode::CANCELLED, "the client gave up before its turn came"});
    }
    try {
      const Response response = mHandler(mRequest);
      Answer(grpc::Status::OK, &response);
    } catch (const std::future_error& e) {
      // What a handler waits for is dropped unanswered when the daemon stops.
      if (e.code() == std::future_errc::broken_promise) {
        Answer(StoppingStatus());
      } else {
        AnswerFailure(e.what());
      }
    } catch (const std::exception& e) {
      AnswerFailure(e.what());
    } catch (...) {
      AnswerFailure("unknown exception");
    }
  }

  void Abandon() override { Answer(StoppingStatus()); }

  void Answer(const grpc::Status& status, const Response* response = nullptr) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mAnswered) {
      return;
    }
    mAnswered = true;
    if (response != nullptr) {
      *mResponse = *response;
    }
    mReactor->Finish(status);  // gRPC's objects may be gone from here on
  }

 private:
  bool IsPointless() {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mAnswered || mContext->IsCancelled();
  }

  void AnswerFailure(const std::string& reason) {
    RpcLogging::Error("Request " + mName + " failed: " + reason);
    Answer({grpc::StatusCode::INTERNAL, reason});
  }

  const std::string mName;
  const Handler mHandler;
  const Request
      mRequest;  // a copy: gRPC's own goes with the answer, which Abandon may give while the handler runs
  std::mutex mMutex;  // guards the rest
  bool mAnswered = false;
  Response* const mResponse;
  grpc::CallbackServerContext* const mContext;
  grpc::ServerUnaryReactor* const mReactor;
};

template <typename Request, typename Response>
grpc::ServerUnaryReactor* ServeRequest(ServiceRuntime& runtime, const char* operation,
                                       grpc::CallbackServerContext* context, const Request* request,
                                       Response* response,
                                       typename CUnaryRequest<Request, Response>::Handler handler) {
  auto call = std::make_shared<CUnaryRequest<Request, Response>>(
      runtime.name + "." + operation, std::move(handler), *request, response, context);
  grpc::ServerUnaryReactor* const reactor = call->Reactor();
  switch (runtime.pool.Submit(call)) {
    case CRequestPool::ESubmit::Taken:
      break;
    case CRequestPool::ESubmit::Full:
      call->Answer(
          {grpc::StatusCode::RESOURCE_EXHAUSTED, "too many requests are waiting for " + runtime.name});
      break;
    case CRequestPool::ESubmit::Stopping:
      call->Abandon();
      break;
  }
  return reactor;
}

/// How long a subscriber that fell behind may take to read what is on its way to it, and learn its status.
/// One that does not read at all would keep its place for ever.
constexpr std::chrono::seconds kPatienceWithSubscribers{10};

/// The stream of one subscriber. Keeps itself alive until gRPC is done with it.
template <typename Message>
class CNotificationStream final : public grpc::ServerWriteReactor<Message> {
 public:
  static grpc::ServerWriteReactor<Message>* Open(const ServiceRuntime& runtime,
                                                 grpc::CallbackServerContext* context) {
    auto stream = std::make_shared<CNotificationStream>(runtime, context);
    stream->mSelf = stream;
    const std::weak_ptr<CNotificationStream> weak = stream;
    auto subscription = runtime.hub->Subscribe(runtime.topic, [weak] {
      if (const auto locked = weak.lock()) {
        locked->Advance();
      }
    });
    {
      const std::lock_guard<std::mutex> lock(stream->mMutex);
      stream->mSubscription = std::move(subscription);
      stream->StartSendInitialMetadata();  // tells the client that from now on it misses nothing
    }
    stream->Advance();
    return stream.get();
  }

  CNotificationStream(const ServiceRuntime& runtime, grpc::CallbackServerContext* context)
      : mName(runtime.name), mHub(runtime.hub), mTopic(runtime.topic), mContext(context) {}

  void OnWriteDone(bool ok) override {
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      mWriting = false;
      if (!ok) {
        mSubscription->End(CSubscription::EEnd::Left);
      }
    }
    Advance();
  }

  void OnCancel() override {
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      mSubscription->End(CSubscription::EEnd::Left);
    }
    Advance();
  }

  void OnDone() override {
    std::shared_ptr<CNotificationStream> self;
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      mHub->Unsubscribe(mTopic, mSubscription);
      self.swap(mSelf);
    }
  }

 private:
  // Starts the next write, or ends the stream when that is what comes next. One write at a time: the rest
  // waits in the subscription, which is bounded.
  void Advance() {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (!mSubscription || mFinished) {
      return;
    }
    if (mWriting) {
      LoseIfItDoesNotRead();
      return;
    }
    CSubscription::Next next = mSubscription->Take();
    if (next.message) {
      mWriting = true;
      mCurrent = std::move(next.message);
      this->StartWrite(static_cast<const Message*>(mCurrent.get()));
    } else if (next.end != CSubscription::EEnd::No) {
      mFinished = true;
      this->Finish(EndStatus(next.end));
    }
  }

  // Comes with every notification. While a write goes on, gRPC's context is there.
  void LoseIfItDoesNotRead() {
    if (mSubscription->GetEnd() != CSubscription::EEnd::TooSlow) {
      return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (!mBehindSince) {
      mBehindSince = now;
      RpcLogging::Warning("A subscriber of " + mName + " fell behind and was disconnected");
    } else if (!mIsLost && now - *mBehindSince > kPatienceWithSubscribers) {
      mIsLost = true;
      RpcLogging::Warning("A subscriber of " + mName + " does not read at all and was cut off");
      mContext->TryCancel();
    }
  }

  grpc::Status EndStatus(CSubscription::EEnd end) const {
    switch (end) {
      case CSubscription::EEnd::TooSlow:
        if (!mBehindSince) {
          RpcLogging::Warning("A subscriber of " + mName + " fell behind and was disconnected");
        }
        return {grpc::StatusCode::RESOURCE_EXHAUSTED,
                "the subscriber fell behind and has missed notifications"};
      case CSubscription::EEnd::TooMany:
        RpcLogging::Warning("A subscriber of " + mName + " was refused: there are too many");
        return {grpc::StatusCode::RESOURCE_EXHAUSTED, "too many subscribers"};
      case CSubscription::EEnd::Stopping:
        return StoppingStatus();
      case CSubscription::EEnd::No:
      case CSubscription::EEnd::Left:
        break;
    }
    return grpc::Status::CANCELLED;
  }

  const std::string mName;
  const std::shared_ptr<CNotificationHub> mHub;
  const std::size_t mTopic;
  grpc::CallbackServerContext* const mContext;
  std::mutex mMutex;  // guards the rest
  std::shared_ptr<CNotificationStream> mSelf;
  std::shared_ptr<CSubscription> mSubscription;
  Notification mCurrent;
  bool mWriting = false;
  bool mFinished = false;
  bool mIsLost = false;
  std::optional<std::chrono::steady_clock::time_point> mBehindSince;
};
