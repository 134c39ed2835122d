#include "framework/worker.h"

#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "framework/log.h"
#include "framework/thread.h"

namespace {

using Clock = std::chrono::steady_clock;

/// A condition variable on the monotonic clock. Where the C library lacks pthread_cond_clockwait,
/// std::condition_variable waits on the wall clock, and setting that clock back would delay every call.
class CMonotonicCondition {
 public:
  CMonotonicCondition() {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&mCondition, &attributes);
    pthread_condattr_destroy(&attributes);
  }
  ~CMonotonicCondition() { pthread_cond_destroy(&mCondition); }
  CMonotonicCondition(const CMonotonicCondition&) = delete;
  CMonotonicCondition& operator=(const CMonotonicCondition&) = delete;

  void NotifyAll() { pthread_cond_broadcast(&mCondition); }
  void Wait(std::unique_lock<std::mutex>& lock) {
    pthread_cond_wait(&mCondition, lock.mutex()->native_handle());
  }
  void WaitUntil(std::unique_lock<std::mutex>& lock, Clock::time_point time) {
    const auto sinceEpoch = time.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    timespec deadline{};
    deadline.tv_sec = static_cast<time_t>(seconds.count());
    deadline.tv_nsec = static_cast<long>(std::chrono::nanoseconds(sinceEpoch - seconds).count());
    pthread_cond_timedwait(&mCondition, lock.mutex()->native_handle(), &deadline);
  }

 private:
  pthread_cond_t mCondition;
};

/// An entry of the schedule: a periodic call, or (without a function) the mark that a Sync waits for.
struct Entry {
  std::function<void()> function;
  Clock::duration period{};
  bool ended = false;  ///< call: cancelled; mark: reached
};

void Call(const std::function<void()>& function) {
  try {
    function();
  } catch (const std::exception& e) {
    Log::Error("A scheduled call failed: {}", e.what());
  } catch (...) {
    Log::Error("A scheduled call failed with an unknown exception.");
  }
}

}  // namespace

struct CWorker::State {
  void Run();

  std::mutex mutex;
  CMonotonicCondition changed;
  std::multimap<Clock::time_point, std::shared_ptr<Entry>> schedule;
  std::thread::id workerThread;  ///< none while the worker does not run
  bool stopping = false;

  void Remove(const std::shared_ptr<Entry>& entry) {
    std::erase_if(schedule, [&](const auto& item) { return item.second == entry; });
  }

  /// Keeps nothing alive, so a call may own the object that holds its handle.
  class CCallHandle : public CWorkerCall {
   public:
    CCallHandle(std::weak_ptr<State> state, std::weak_ptr<Entry> entry)
        : mState(std::move(state)), mEntry(std::move(entry)) {}

    void Cancel() override {
      const auto state = mState.lock();
      const auto entry = mEntry.lock();  // outlives the lock: destroying the function runs foreign code
      if (state && entry) {
        const std::lock_guard lock(state->mutex);
        entry->ended = true;
        state->Remove(entry);
      }
    }

   private:
    const std::weak_ptr<State> mState;
    const std::weak_ptr<Entry> mEntry;
  };
};

void CWorker::State::Run() {
  std::unique_lock lock(mutex);
  while (!stopping) {
    if (schedule.empty()) {
      changed.Wait(lock);
      continue;
    }
    const auto first = schedule.begin();
    const Clock::time_point due = first->first;
    if (due > Clock::now()) {
      changed.WaitUntil(lock, due);
      continue;
    }
    auto entry = std::move(first->second);
    schedule.erase(first);
    if (!entry->function) {
      entry->ended = true;
      changed.NotifyAll();
      continue;
    }
    lock.unlock();
    Call(entry->function);
    lock.lock();
    if (!entry->ended) {
      const auto missed = std::max(Clock::now() - due, Clock::duration::zero()) / entry->period;
      schedule.emplace(due + (missed + 1) * entry->period, std::move(entry));
    } else {
      lock.unlock();
      entry.reset();
      lock.lock();
    }
  }
}

CWorker::CWorker(std::string threadName)
    : mThreadName(std::move(threadName)), mState(std::make_shared<State>()) {}

CWorker::~CWorker() {
  Stop();
}

void CWorker::Start() {
  const std::lock_guard lifecycle(mLifecycle);
  if (mThread.joinable()) {
    return;
  }
  // The thread's id is known before its first call, which may ask for it in Sync.
  const std::lock_guard lock(mState->mutex);
  mState->stopping = false;
  mThread = std::thread([this] {
    SetThreadName(mThreadName.c_str());
    mState->Run();
  });
  mState->workerThread = mThread.get_id();
}

void CWorker::Stop() {
  const std::lock_guard lifecycle(mLifecycle);
  if (!mThread.joinable()) {
    return;
  }
  {
    const std::lock_guard lock(mState->mutex);
    mState->stopping = true;
    mState->changed.NotifyAll();
  }
  mThread.join();
  const std::lock_guard lock(mState->mutex);
  mState->workerThread = {};
  mState->changed.NotifyAll();
}

std::shared_ptr<CWorkerCall> CWorker::AddCall(const std::function<void()>& function, Clock::time_point first,
                                              std::chrono::nanoseconds period) {
  if (!function || period <= Clock::duration::zero()) {
    throw std::invalid_argument("CWorker::AddCall needs a function and a period above zero");
  }
  auto entry = std::make_shared<Entry>(Entry{function, period, false});
  auto handle = std::make_shared<State::CCallHandle>(mState, entry);
  const std::lock_guard lock(mState->mutex);
  mState->schedule.emplace(first, std::move(entry));
  mState->changed.NotifyAll();
  return handle;
}

void CWorker::Sync() {
  std::unique_lock lock(mState->mutex);
  const auto isRunning = [this] { return mState->workerThread != std::thread::id(); };
  if (!isRunning() || mState->workerThread == std::this_thread::get_id()) {
    return;
  }
  // The mark is due now, so the thread reaches it only after every call that is due or running.
  const auto mark = std::make_shared<Entry>();
  mState->schedule.emplace(Clock::now(), mark);
  mState->changed.NotifyAll();
  while (!mark->ended && isRunning()) {
    mState->changed.Wait(lock);
  }
  mState->Remove(mark);
}
