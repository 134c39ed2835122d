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

/// A condition variable on the monotonic clock on every C library: where the library cannot wait on that
/// clock, std::condition_variable waits on the wall clock, and setting the clock back would delay every call.
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

/// Entries of equal time stand in the order in which they were added.
using Schedule = std::multimap<Clock::time_point, std::shared_ptr<Entry>>;

struct State {
  std::mutex mutex;
  CMonotonicCondition changed;
  Schedule schedule;
  std::thread::id workerThread;  ///< none while the worker does not run
  bool stopping = false;
};

/// Keeps nothing alive, so a call may own the object that holds its handle.
class CCallHandle : public CWorkerCall {
 public:
  CCallHandle(std::weak_ptr<State> state, std::weak_ptr<Entry> entry)
      : mState(std::move(state)), mEntry(std::move(entry)) {}

  void Cancel() override {
    const auto state = mState.lock();
    const auto entry = mEntry.lock();  // released after the lock: the function's destructor is not ours
    if (!state || !entry) {
      return;
    }
    const std::lock_guard lock(state->mutex);
    entry->ended = true;
    std::erase_if(state->schedule, [&](const auto& item) { return item.second == entry; });
  }

 private:
  std::weak_ptr<State> mState;
  std::weak_ptr<Entry> mEntry;
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

void Run(State& state) {
  std::unique_lock lock(state.mutex);
  while (!state.stopping) {
    if (state.schedule.empty()) {
      state.changed.Wait(lock);
      continue;
    }
    const auto first = state.schedule.begin();
    const Clock::time_point due = first->first;
    if (due > Clock::now()) {
      state.changed.WaitUntil(lock, due);
      continue;
    }
    auto entry = std::move(first->second);
    state.schedule.erase(first);
    if (!entry->function) {
      entry->ended = true;
      state.changed.NotifyAll();
      continue;
    }
    lock.unlock();
    Call(entry->function);
    lock.lock();
    if (!entry->ended) {
      const auto missed = std::max(Clock::now() - due, Clock::duration::zero()) / entry->period;
      state.schedule.emplace(due + (missed + 1) * entry->period, std::move(entry));
    } else {
      lock.unlock();
      entry.reset();
      lock.lock();
    }
  }
}

}  // namespace

class CWorker::Impl {
 public:
  ~Impl() { Stop(); }

  void Start() {
    const std::lock_guard lifecycle(mLifecycle);
    if (mThread.joinable()) {
      return;
    }
    // The thread's id is known before its first call, which may ask for it in Sync.
    const std::lock_guard lock(mState->mutex);
    mState->stopping = false;
    mThread = std::thread([state = mState] {
      SetThreadName("rfid-worker");
      Run(*state);
    });
    mState->workerThread = mThread.get_id();
  }

  void Stop() {
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

  std::shared_ptr<CWorkerCall> AddCall(const std::function<void()>& function, Clock::time_point first,
                                       Clock::duration period) {
    if (!function || period <= Clock::duration::zero()) {
      throw std::invalid_argument("CWorker::AddCall needs a function and a period above zero");
    }
    auto entry = std::make_shared<Entry>(Entry{function, period, false});
    auto handle = std::make_shared<CCallHandle>(mState, entry);
    const std::lock_guard lock(mState->mutex);
    mState->schedule.emplace(first, std::move(entry));
    mState->changed.NotifyAll();
    return handle;
  }

  void Sync() {
    std::unique_lock lock(mState->mutex);
    const auto isRunning = [this] { return mState->workerThread != std::thread::id(); };
    if (!isRunning() || mState->workerThread == std::this_thread::get_id()) {
      return;
    }
    // The thread comes to a mark at the present time after everything that is due or in progress now.
    const auto mark = std::make_shared<Entry>();
    mState->schedule.emplace(Clock::now(), mark);
    mState->changed.NotifyAll();
    while (!mark->ended && isRunning()) {
      mState->changed.Wait(lock);
    }
    std::erase_if(mState->schedule, [&](const auto& item) { return item.second == mark; });
  }

 private:
  std::mutex mLifecycle;  ///< of Start and Stop
  std::thread mThread;
  const std::shared_ptr<State> mState = std::make_shared<State>();
};

CWorker::CWorker() : mImpl(std::make_unique<Impl>()) {}
CWorker::~CWorker() = default;
void CWorker::Start() {
  mImpl->Start();
}
void CWorker::Stop() {
  mImpl->Stop();
}
void CWorker::Sync() {
  mImpl->Sync();
}

std::shared_ptr<CWorkerCall> CWorker::AddCall(const std::function<void()>& function, Clock::time_point first,
                                              std::chrono::nanoseconds period) {
  return mImpl->AddCall(function, first, period);
}
