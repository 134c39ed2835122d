#pragma once

#include <google/protobuf/message_lite.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/grpcpp.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "rpcqueue.h"

/// A client's call to any service. It lives while gRPC works on it or somebody holds it.
///
/// Threads: operations on any thread, one at a time; functions passed here run on the queue's thread. An
/// operation on a call that is over has no effect.
class CServerCall : public std::enable_shared_from_this<CServerCall> {
 public:
  using Handler = std::function<void(const std::shared_ptr<CServerCall>&)>;

  explicit CServerCall(CRpcQueue& queue);
  CServerCall(const CServerCall&) = delete;
  CServerCall& operator=(const CServerCall&) = delete;

  /// Passes every incoming call to `handler`, until the server shuts down. `queue` wraps `serverQueue`, which
  /// belongs to the server of `service`.
  static void Accept(CRpcQueue& queue, grpc::ServerCompletionQueue* serverQueue,
                     grpc::AsyncGenericService& service, const Handler& handler);

  const std::string& Service() const { return mContext.host(); }
  const std::string& Method() const { return mContext.method(); }

  /// The client has gone, or the call was finished.
  bool IsOver() const { return mIsOver; }

  /// `over` runs once, when the call is over. Call this in the call's handler only.
  void OnOver(std::function<void()> over) { mOnOver = std::move(over); }

  /// `done` gets the request's message, or nothing when the client has gone.
  void Read(const std::function<void(grpc::ByteBuffer*)>& done);

  void SendInitialMetadata();
  /// `done` gets false when the client has gone.
  void Write(const google::protobuf::MessageLite& message, CRpcQueue::Done done);
  /// Sends the message, if there is one, and ends the call. Call it once.
  void Finish(const grpc::Status& status, const google::protobuf::MessageLite* message = nullptr);
  void Cancel() { mContext.TryCancel(); }

 private:
  void TakeEnd();

  CRpcQueue& mQueue;
  grpc::GenericServerContext mContext;
  grpc::GenericServerAsyncReaderWriter mStream;
  // gRPC owns it once the call has arrived: gRPC reports the end of every call that it has accepted, and of
  // no other.
  std::unique_ptr<CRpcQueue::COperation> mEnd;
  std::shared_ptr<CServerCall> mSelf;  // from the call's arrival until its end
  std::function<void()> mOnOver;       // used by the queue's thread only
  std::atomic<bool> mIsOver{false};
};
