#pragma once

#include <grpcpp/grpcpp.h>

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "rpclogging.h"
#include "serviceruntime.h"

/// One request, from its arrival on a gRPC thread to its answer. It is answered exactly once. The handler
/// runs on one of the service's threads.
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
    if (IsAnsweredOrCancelled()) {
      return Answer({grpc::StatusCode::CANCELLED, "the client gave up before its turn came"});
    }
    try {
      const Response response = mHandler(mRequest);
      Answer(grpc::Status::OK, &response);
    } catch (const std::future_error& e) {
      // When the daemon stops, the promise that a handler waits for is dropped.
      e.code() == std::future_errc::broken_promise ? Abandon() : AnswerFailure(e.what());
    } catch (const std::exception& e) {
      AnswerFailure(e.what());
    } catch (...) {
      AnswerFailure("unknown exception");
    }
  }

  void Abandon() override { Answer({grpc::StatusCode::UNAVAILABLE, "the daemon is stopping"}); }

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
  bool IsAnsweredOrCancelled() {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mAnswered || mContext->IsCancelled();
  }

  void AnswerFailure(const std::string& reason) {
    RpcLogging::Error("Request " + mName + " failed: " + reason);
    Answer({grpc::StatusCode::INTERNAL, reason});
  }

  const std::string mName;
  const Handler mHandler;
  const Request mRequest;  // a copy: Abandon may answer while the handler runs, which frees gRPC's message
  std::mutex mMutex;       // guards the rest
  bool mAnswered = false;
  Response* const mResponse;
  grpc::CallbackServerContext* const mContext;
  grpc::ServerUnaryReactor* const mReactor;
};

/// Queues a request for the service's threads. Refuses it when the queue is full or the daemon is stopping.
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
