#include "statemachines/hsmalive.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

namespace {

struct AliveActions {
  virtual void IntStartAliveTimer() = 0;
  virtual void IntStopAliveTimer() = 0;
};

class Handler : public CHsmAlive<AliveActions> {
 public:
  Handler() {
    ExtSendAlive = [this] {
      const std::lock_guard lock(mMutex);
      mTimes.push_back(std::chrono::steady_clock::now());
      mSent.notify_all();
    };
    CWorker::Start();
  }
  ~Handler() override {
    IntStopAliveTimer();
    CWorker::Stop();
  }
  bool IsAlive() override {
    ++mAsked;
    return mAlive;
  }

  bool WaitForMessages(size_t count, std::chrono::seconds limit) {
    std::unique_lock lock(mMutex);
    return mSent.wait_for(lock, limit, [&] { return mTimes.size() >= count; });
  }
  size_t Messages() {
    const std::lock_guard lock(mMutex);
    return mTimes.size();
  }

  std::atomic<bool> mAlive{true};
  std::atomic<int> mAsked{0};
  std::mutex mMutex;
  std::condition_variable mSent;
  std::vector<std::chrono::steady_clock::time_point> mTimes;
};

}  // namespace

TEST(HsmAlive, SendsAtOnceAndThenEveryFourSecondsUntilItIsStopped) {
  Handler handler;
  handler.IntStartAliveTimer();
  ASSERT_TRUE(handler.WaitForMessages(1, std::chrono::seconds(3)));
  ASSERT_TRUE(handler.WaitForMessages(2, std::chrono::seconds(20)));
  EXPECT_GE(handler.mTimes[1] - handler.mTimes[0], std::chrono::milliseconds(3000));
  handler.IntStopAliveTimer();
  const auto sent = handler.Messages();
  handler.Sync();
  EXPECT_EQ(handler.Messages(), sent);
}

TEST(HsmAlive, StoppingWaitsForAMessageThatIsOnItsWay) {
  Handler handler;
  std::atomic<bool> sending{false};
  std::atomic<bool> sent{false};
  std::promise<void> mayGoOn;
  handler.ExtSendAlive = [&] {
    sending = true;
    mayGoOn.get_future().wait();
    sent = true;
  };
  handler.IntStartAliveTimer();
  while (!sending) {
    std::this_thread::yield();
  }
  std::thread releaser([&] { mayGoOn.set_value(); });
  handler.IntStopAliveTimer();
  EXPECT_TRUE(sent);
  releaser.join();
}

TEST(HsmAlive, AHandlerThatIsNotAliveSendsNothing) {
  Handler handler;
  handler.mAlive = false;
  handler.IntStopAliveTimer();  // nothing runs: only waits for the worker
  handler.IntStartAliveTimer();
  while (handler.mAsked == 0) {
    std::this_thread::yield();
  }
  handler.IntStopAliveTimer();
  EXPECT_EQ(handler.Messages(), 0U);
}
