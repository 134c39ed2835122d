#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

/// What threads of a test hand to each other, and how one waits for another.
namespace handover {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

/// Nothing that is waited for takes so long, also on a machine that stalls.
constexpr Clock::duration kPatience = seconds(60);

/// Polls a condition that has no event to wait for.
template <typename Condition>
bool Eventually(Condition condition, Clock::duration timeout = kPatience) {
  const auto deadline = Clock::now() + timeout;
  while (!condition()) {
    if (Clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(milliseconds(2));
  }
  return true;
}

/// Values handed from one thread to another.
template <typename T>
class Mailbox {
 public:
  void Put(T value) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mValues.push_back(std::move(value));
    mWake.notify_all();
  }
  std::optional<T> Take(Clock::duration timeout = kPatience) {
    std::unique_lock<std::mutex> lock(mMutex);
    if (!mWake.wait_for(lock, timeout, [&] { return !mValues.empty(); })) {
      return std::nullopt;
    }
    T value = std::move(mValues.front());
    mValues.pop_front();
    return value;
  }

 private:
  std::mutex mMutex;
  std::condition_variable mWake;
  std::deque<T> mValues;
};

/// Holds callers back until it is opened.
class Gate {
 public:
  void Open() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mOpen = true;
    mWake.notify_all();
  }
  void Pass() {
    std::unique_lock<std::mutex> lock(mMutex);
    ++mWaiting;
    mWake.notify_all();
    mWake.wait(lock, [&] { return mOpen; });
  }
  bool AwaitWaiting(int count) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mWake.wait_for(lock, kPatience, [&] { return mWaiting >= count; });
  }

 private:
  std::mutex mMutex;
  std::condition_variable mWake;
  bool mOpen = false;
  int mWaiting = 0;
};

}  // namespace handover
