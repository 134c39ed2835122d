#include "requestpool.h"

#include <system_error>
#include <thread>
#include <utility>

#include "framework/thread.h"

namespace {

constexpr std::chrono::seconds kIdleTime{10};

}  // namespace

CRequestPool::CRequestPool(std::string name, std::size_t threads, std::size_t queueBound)
    : mName(std::move(name)), mThreadCount(threads), mQueueBound(queueBound) {}

CRequestPool::ESubmit CRequestPool::Submit(std::shared_ptr<IRequest> request) {
  const std::lock_guard<std::mutex> lock(mState->mutex);
  if (mState->stopping) {
    return ESubmit::Stopping;
  }
  if (mState->waiting.size() >= mQueueBound) {
    return ESubmit::Full;
  }
  mState->waiting.push_back(std::move(request));
  if (mState->waiting.size() <= mState->idle || mState->threads == mThreadCount) {
    mState->wake.notify_one();
    return ESubmit::Taken;
  }
  try {
    std::thread(&CRequestPool::Work, mState, mName).detach();
    ++mState->threads;
  } catch (const std::system_error&) {
    if (mState->threads == 0) {
      mState->waiting.pop_back();
      return ESubmit::Full;
    }
  }
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
  std::unique_lock<std::mutex> lock(mState->mutex);
  return mState->ended.wait_until(lock, deadline, [this] { return mState->threads == 0; });
}

void CRequestPool::Work(const std::shared_ptr<State>& state, const std::string& name) {
  SetThreadName(name.c_str());
  std::unique_lock<std::mutex> lock(state->mutex);
  for (;;) {
    ++state->idle;
    state->wake.wait_for(lock, kIdleTime, [&] { return state->stopping || !state->waiting.empty(); });
    --state->idle;
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
  --state->threads;
  state->ended.notify_all();
}
