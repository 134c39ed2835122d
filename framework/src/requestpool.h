#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <string>

class IRequest {
 public:
  virtual ~IRequest() = default;

  /// Carries out and answers the request; may block. On a thread of the pool. Must not throw.
  virtual void Run() = 0;

  /// Answers that the daemon is stopping, unless there is an answer already. Any thread, also while Run
  /// blocks.
  virtual void Abandon() = 0;
};

/// A bounded number of threads for the requests to one service, with a bounded queue before them. A thread
/// starts when a request finds none idle, and ends after ten seconds without a request.
///
/// Knows no transport. All operations from any thread.
class CRequestPool {
 public:
  enum class ESubmit { Taken, Full, Stopping };

  CRequestPool(std::string name, std::size_t threads, std::size_t queueBound);
  ~CRequestPool() { Abandon(); }
  CRequestPool(const CRequestPool&) = delete;
  CRequestPool& operator=(const CRequestPool&) = delete;

  /// Full also means that the system has no thread for the request.
  ESubmit Submit(std::shared_ptr<IRequest> request);

  /// Abandons every request, waiting or running, and refuses new ones. Does not block.
  void Abandon();

  /// After Abandon: waits for the threads. Returns false when a thread is still in a request at the deadline.
  /// That thread shares nothing with this object and ends when the request returns.
  bool Join(std::chrono::steady_clock::time_point deadline);

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable wake;
    std::condition_variable ended;
    std::list<std::shared_ptr<IRequest>> waiting;
    std::list<std::shared_ptr<IRequest>> running;
    std::size_t threads = 0;
    std::size_t idle = 0;  // of the threads
    bool stopping = false;
  };
  static void Work(const std::shared_ptr<State>& state, const std::string& name);

  const std::string mName;
  const std::size_t mThreadCount;
  const std::size_t mQueueBound;
  // Shared with the threads, so that it outlives a thread that returns late from a request.
  const std::shared_ptr<State> mState = std::make_shared<State>();
};
