#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

/// A scheduled periodic call.
class CWorkerCall {
 public:
  virtual ~CWorkerCall() = default;

  /// Ends the schedule: no call starts afterwards. A running call goes on (CWorker::Sync waits for it). Any
  /// thread.
  virtual void Cancel() = 0;
};

/// One thread that makes calls at their time, on the steady clock.
///
/// An exception that leaves a call is logged at error; the worker and the call's schedule live on.
class CWorker {
 public:
  explicit CWorker(std::string threadName = "worker");
  virtual ~CWorker();  ///< stops and joins
  CWorker(const CWorker&) = delete;
  CWorker& operator=(const CWorker&) = delete;

  /// Starts the thread. Calls added before wait for it. A second Start does nothing.
  void Start();

  /// Ends the thread after the call in progress and joins it. Not from the worker's own thread.
  void Stop();

  /// Calls `function` at `first` and then once per `period`, without drift; missed periods are skipped. Any
  /// thread. The handle may be dropped: the schedule goes on.
  std::shared_ptr<CWorkerCall> AddCall(const std::function<void()>& function,
                                       std::chrono::steady_clock::time_point first,
                                       std::chrono::nanoseconds period);

  /// Blocks until the calls that were due or running when it was called have completed. Returns at once on
  /// the worker's own thread and when the worker is not running.
  void Sync();

 private:
  struct State;

  const std::string mThreadName;
  std::mutex mLifecycle;  ///< of Start and Stop
  std::thread mThread;
  const std::shared_ptr<State> mState;
};
