#pragma once

#include <chrono>
#include <functional>
#include <memory>

/// A scheduled periodic call. Cancel ends it: no call starts afterwards, one that is running goes on
/// (CWorker::Sync waits for it). Cancel may come from any thread.
class CWorkerCall {
 public:
  virtual ~CWorkerCall() = default;
  virtual void Cancel() = 0;
};

/// One thread that makes calls at their time, on the steady clock.
///
/// An exception that leaves a call is logged at error; the worker and the call's schedule live on.
class CWorker {
 public:
  CWorker();
  virtual ~CWorker();  ///< stops and joins
  CWorker(const CWorker&) = delete;
  CWorker& operator=(const CWorker&) = delete;

  /// Starts the thread. Calls added before wait for it. A second Start does nothing.
  void Start();

  /// Ends the thread after the call in progress and joins it. Not from the worker's own thread.
  void Stop();

  /// Calls `function` at `first` and then once per `period`, without drift; periods that were missed are
  /// skipped. Any thread. The handle may be dropped: the schedule goes on.
  std::shared_ptr<CWorkerCall> AddCall(const std::function<void()>& function,
                                       std::chrono::steady_clock::time_point first,
                                       std::chrono::nanoseconds period);

  /// Blocks until the calls that were due or running when it was called have completed. Returns at once on
  /// the worker's own thread and when the worker is not running.
  void Sync();

 private:
  class Impl;
  std::unique_ptr<Impl> mImpl;
};
