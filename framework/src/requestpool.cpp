#include "requestpool.h"

#include <utility>

#include "framework/thread.h"

CRequestPool::CRequestPool(std::string name, std::size_t threads, std::size_t queueBound)
    : mName(std::move(name)), mThreadCount(threads), mQueueBound(queueBound) {}

CRequestPool::~CRequestPool() {
  Abandon();
  Join(std::chrono::steady_clock::now());
}

void CRequestPool::Start() {
  const std::lock_guard<std::mutex> threads(mThreadsMutex);
  while (mThreads.size() < mThreadCount) {
    {
      const std::lock_guard<std::mutex> lock(mState->mutex);
      ++mState->alive;
    }
    mThreads.emplace_back(&CRequestPool::Work, mState, mName);
  }
}

CRequestPool::ESubmit CRequestPool::Submit(std::shared_ptr<IRequest> request) {
  const std::lock_guard<std::mutex> lock(mState->mutex);
  if (mState->stopping) {
    return ESubmit::Stopping;
  }
  if (mState->waiting.size() >= mQueueBound) {
    return ESubmit::Full;
  }
  mState->waiting.push_back(std::move(request));
  mState->wake.notify_one();
  return ESubmit::Taken;
}

void CRequestPool::Abandon() {
  std::list<std::shared_ptr<IRequest>> requests;
  {
    const std::lock_guard<std::mutex> lock(mState->mutex);
    if (std::exchange(mState->stopping, true)) {
      return;
    }
    requests = mState->running;
    requests.splice(requests.end(), mState->waiting);
  }
  mState->wake.notify_all();
  for (const auto& request : requests) {
    request->Abandon();
  }
}

bool CRequestPool::Join(std::chrono::steady_clock::time_point deadline) {
  const std::lock_guard<std::mutex> threads(mThreadsMutex);
  std::unique_lock<std::mutex> lock(mState->mutex);
  const bool ended = mState->ended.wait_until(lock, deadline, [this] { return mState->alive == 0; });
  lock.unlock();
  for (std::thread& thread : mThreads) {
    // When one thread is stuck, the others are idle and about to end, so they may be detached too.
    ended ? thread.join() : thread.detach();
  }
  mThreads.clear();
  return ended;
}

void CRequestPool::Work(const std::shared_ptr<State>& state, const std::string& name) {
  SetThreadName(name.c_str());
  std::unique_lock<std::mutex> lock(state->mutex);
  for (;;) {
    state->wake.wait(lock, [&] { return state->stopping || !state->waiting.empty(); });
    if (state->waiting.empty()) {
      break;
    }
    auto request = state->waiting.front();
    state->running.splice(state->running.end(), state->waiting, state->waiting.begin());
    lock.unlock();
    request->Run();
    lock.lock();
    state->running.remove(request);
    lock.unlock();
    request.reset();  // without the lock: it may own the service
    lock.lock();
  }
  --state->alive;
  state->ended.notify_all();
}
