#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <utility>

namespace virtualnfc {

/// Actions to run later, in order of time. Not thread-safe; the owner's thread runs them.
class Timers {
 public:
  using Clock = std::chrono::steady_clock;

  void After(std::chrono::milliseconds delay, std::function<void()> action) {
    At(Clock::now() + delay, std::move(action));
  }
  void At(Clock::time_point due, std::function<void()> action) { mPending.emplace(due, std::move(action)); }

  std::optional<Clock::time_point> Next() const {
    return mPending.empty() ? std::nullopt : std::optional(mPending.begin()->first);
  }

  /// Runs all that are due; an action may add others.
  void RunDue() {
    const Clock::time_point now = Clock::now();
    while (!mPending.empty() && mPending.begin()->first <= now) {
      auto due = mPending.extract(mPending.begin());
      due.mapped()();
    }
  }

 private:
  std::multimap<Clock::time_point, std::function<void()>> mPending;
};

}  // namespace virtualnfc
