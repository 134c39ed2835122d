#pragma once

#include <grpcpp/impl/codegen/proto_utils.h>

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "rpclogging.h"
#include "servercall.h"
#include "serviceruntime.h"

/// One request, from its arrival to its answer. It is answered exactly once. The handler runs on one of the
/// service's threads.
template <typename Request, typename Response>
class CUnaryRequest final : public IRequest {
 public:
  using Handler = std::function<Response(const Request&)>;

  CUnaryRequest(std::string name, Handler handler, Request request, std::shared_ptr<CServerCall> call)
      : mName(std::move(name)),
        mHandler(std::move(handler)),
        mRequest(std::move(request)),
        mCall(std::move(call)) {}

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
    std::shared_ptr<CServerCall> call;
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      call.swap(mCall);
    }
    if (call) {
      call->Finish(status, response);
    }
  }

 private:
  bool IsAnsweredOrCancelled() {
    const std::lock_guard<std::mutex> lock(mMutex);
    return !mCall || mCall->IsOver();
  }

  void AnswerFailure(const std::string& reason) {
    RpcLogging::Error("Request " + mName + " failed: " + reason);
    Answer({grpc::StatusCode::INTERNAL, reason});
  }

  const std::string mName;
  const Handler mHandler;
  const Request mRequest;
  std::mutex mMutex;                   // guards the rest
  std::shared_ptr<CServerCall> mCall;  // until the answer: a handler may never return
};

/// Queues each call's request for the service's threads. Refuses it when the queue is full or the daemon is
/// stopping.
template <typename Request, typename Response>
CServerCall::Handler UnaryMethod(ServiceRuntime& runtime, const char* operation,
                                 std::function<Response(const Request&)> handler) {
  return [&runtime, operation, handler](const std::shared_ptr<CServerCall>& call) {
    call->Read([&runtime, operation, handler, call](grpc::ByteBuffer* message) {
      Request request;
      if (message == nullptr || !grpc::SerializationTraits<Request>::Deserialize(message, &request).ok()) {
        return call->Finish({grpc::StatusCode::INVALID_ARGUMENT,
                             runtime.name + "." + operation + ": the request is missing or malformed"});
      }
      const auto unary = std::make_shared<CUnaryRequest<Request, Response>>(
          runtime.name + "." + operation, handler, std::move(request), call);
      switch (runtime.pool.Submit(unary)) {
        case CRequestPool::ESubmit::Taken:
          break;
        case CRequestPool::ESubmit::Full:
          unary->Answer(
              {grpc::StatusCode::RESOURCE_EXHAUSTED, "too many requests are waiting for " + runtime.name});
          break;
        case CRequestPool::ESubmit::Stopping:
          unary->Abandon();
          break;
      }
    });
  };
}
