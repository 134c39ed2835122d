#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

#include "tools/common/eventually.h"

/// How threads of a test exchange values and wait for each other.
namespace handover {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr Clock::duration kPatience = kLongestWait;

using ::Eventually;

/// A queue of values between threads.
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

/// Blocks callers until it is opened.
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
  testing::AssertionResult AwaitWaiting(int count) {
    std::unique_lock<std::mutex> lock(mMutex);
    return (mWake.wait_for(lock, kPatience, [&] { return mWaiting >= count; }) ? testing::AssertionSuccess()
                                                                               : testing::AssertionFailure())
           << mWaiting << " callers came to the gate instead of " << count;
  }

 private:
  std::mutex mMutex;
  std::condition_variable mWake;
  bool mOpen = false;
  int mWaiting = 0;
};

}  // namespace handover
