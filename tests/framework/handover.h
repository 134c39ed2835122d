#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

#include "tools/common/eventually.h"

/// What threads of a test hand to each other, and how one waits for another.
namespace handover {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr Clock::duration kPatience = kLongestWait;

using ::Eventually;

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
