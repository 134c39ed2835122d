#pragma once

#include <grpcpp/grpcpp.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>

/// The queue in which gRPC reports the end of each operation of a host's server and clients.
///
/// One thread waits here, without a timeout, and does all of gRPC's reading. A second thread that waits
/// inside gRPC would make the two hand over the polling with every event, which costs several system calls.
class CRpcQueue {
 public:
  using Done = std::function<void(bool ok)>;

  /// The tag of an operation under way.
  class COperation {
   public:
    explicit COperation(Done done) : mDone(std::move(done)) {}
    void End(bool ok);  ///< deletes this object

   private:
    Done mDone;
  };

  explicit CRpcQueue(std::unique_ptr<grpc::CompletionQueue> queue) : mQueue(std::move(queue)) {}
  ~CRpcQueue();  ///< as Close, then Run
  CRpcQueue(const CRpcQueue&) = delete;
  CRpcQueue& operator=(const CRpcQueue&) = delete;

  /// Calls `start(queue, tag)`, which starts one operation with this tag. `done` runs at its end, on the
  /// thread of Run, and must not block. After Close, does nothing and returns false. Any thread.
  template <typename Start>
  bool Begin(Done done, Start start) {
    const std::shared_lock<std::shared_mutex> lock(mMutex);
    if (mIsClosed) {
      return false;
    }
    auto* const operation = new COperation(std::move(done));
    mHandedOver.fetch_add(1, std::memory_order_release);
    start(mQueue.get(), operation);
    return true;
  }

  /// Makes a unary call and waits for its end. `start(queue)` calls the stub's Async method. Any thread but
  /// that of Run.
  template <typename Response, typename Start>
  grpc::Status Call(Response* response, Start start) {
    grpc::Status status;
    std::unique_ptr<grpc::ClientAsyncResponseReader<Response>> reader;
    const auto ended = std::make_shared<std::promise<void>>();
    const bool isStarted = Begin([ended](bool) { ended->set_value(); },
                                 [&](grpc::CompletionQueue* queue, void* tag) {
                                   reader = start(queue);
                                   reader->Finish(response, &status, tag);
                                 });
    if (!isStarted) {
      return {grpc::StatusCode::UNAVAILABLE, "the daemon is stopping"};
    }
    ended->get_future().wait();
    return status;
  }

  /// Reports ends, until Close was called and every operation has ended.
  void Run();

  /// Refuses further operations.
  void Close();

 private:
  const std::unique_ptr<grpc::CompletionQueue> mQueue;
  std::shared_mutex mMutex;  // guards mIsClosed; shared while an operation starts
  bool mIsClosed = false;
  // Shows ThreadSanitizer, which cannot see inside gRPC, that operations pass to the thread of Run.
  std::atomic<unsigned> mHandedOver{0};
};
