#include "servercall.h"

#include <grpcpp/impl/codegen/proto_utils.h>

#include <utility>

namespace {

using google::protobuf::MessageLite;

grpc::ByteBuffer Serialize(const MessageLite& message) {
  grpc::ByteBuffer buffer;
  bool own = false;
  grpc::SerializationTraits<MessageLite>::Serialize(message, &buffer, &own);
  return buffer;
}

}  // namespace

CServerCall::CServerCall(CRpcQueue& queue) : mQueue(queue), mStream(&mContext) {}

void CServerCall::Accept(CRpcQueue& queue, grpc::ServerCompletionQueue* serverQueue,
                         grpc::AsyncGenericService& service, const Handler& handler) {
  const auto call = std::make_shared<CServerCall>(queue);
  call->mEnd = std::make_unique<CRpcQueue::COperation>([call = call.get()](bool) { call->TakeEnd(); });
  call->mContext.AsyncNotifyWhenDone(call->mEnd.get());
  queue.Begin(
      [=, &queue, &service](bool ok) {
        if (ok) {
          Accept(queue, serverQueue, service, handler);
          call->mSelf = call;
          call->mEnd.release();
          handler(call);
        }
      },
      [&](grpc::CompletionQueue*, void* tag) {
        service.RequestCall(&call->mContext, &call->mStream, serverQueue, serverQueue, tag);
      });
}

void CServerCall::Read(const std::function<void(grpc::ByteBuffer*)>& done) {
  const auto message = std::make_shared<grpc::ByteBuffer>();
  mQueue.Begin([self = shared_from_this(), message, done](bool ok) { done(ok ? message.get() : nullptr); },
               [&](grpc::CompletionQueue*, void* tag) { mStream.Read(message.get(), tag); });
}

void CServerCall::SendInitialMetadata() {
  mQueue.Begin([self = shared_from_this()](bool) {},
               [this](grpc::CompletionQueue*, void* tag) { mStream.SendInitialMetadata(tag); });
}

void CServerCall::Write(const MessageLite& message, CRpcQueue::Done done) {
  mQueue.Begin([self = shared_from_this(), done = std::move(done)](bool ok) { done(ok); },
               [&](grpc::CompletionQueue*, void* tag) { mStream.Write(Serialize(message), tag); });
}

void CServerCall::Finish(const grpc::Status& status, const MessageLite* message) {
  mQueue.Begin([self = shared_from_this()](bool) {},
               [&](grpc::CompletionQueue*, void* tag) {
                 if (message != nullptr) {
                   mStream.WriteAndFinish(Serialize(*message), {}, status, tag);
                 } else {
                   mStream.Finish(status, tag);
                 }
               });
}

void CServerCall::TakeEnd() {
  const auto self = std::move(mSelf);
  mIsOver = true;
  if (mOnOver) {
    std::exchange(mOnOver, nullptr)();
  }
}
