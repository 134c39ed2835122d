#include "statemachines/hsmalive.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/framework/handover.h"

namespace {

using handover::Clock;
using handover::Eventually;
using handover::Gate;
using handover::Mailbox;

struct AliveActions {
  virtual void IntStartAliveTimer() = 0;
  virtual void IntStopAliveTimer() = 0;
};

class Handler : public CHsmAlive<AliveActions> {
 public:
  Handler() {
    ExtSendAlive = [this] { mTimes.Put(Clock::now()); };
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

  std::atomic<bool> mAlive{true};
  std::atomic<int> mAsked{0};
  Mailbox<Clock::time_point> mTimes;
};

}  // namespace

static_assert(Handler::kAlivePeriod == std::chrono::seconds(4), "what the supervisor relies on");

TEST(HsmAlive, SendsAtOnceAndThenEveryFourSecondsUntilItIsStopped) {
  Handler handler;
  const auto stop = [&] {
    handler.IntStopAliveTimer();
    while (handler.mTimes.Take(Clock::duration::zero())) {
    }
  };
  Clock::time_point start;
  // Another try, in case this computer stalls for as long as a period.
  ASSERT_TRUE(Eventually([&] {
    stop();
    start = Clock::now();
    handler.IntStartAliveTimer();
    const auto first = handler.mTimes.Take();
    return first && *first - start < Handler::kAlivePeriod;
  }));
  const auto second = handler.mTimes.Take();
  ASSERT_TRUE(second);
  EXPECT_GE(*second - start, Handler::kAlivePeriod);
  stop();
  handler.Sync();
  EXPECT_FALSE(handler.mTimes.Take(Clock::duration::zero()));
}

TEST(HsmAlive, StoppingWaitsForAMessageThatIsOnItsWay) {
  Handler handler;
  Gate gate;
  std::atomic<bool> sent{false};
  handler.ExtSendAlive = [&] {
    gate.Pass();
    sent = true;
  };
  handler.IntStartAliveTimer();
  ASSERT_TRUE(gate.AwaitWaiting(1));
  std::thread releaser([&] { gate.Open(); });
  handler.IntStopAliveTimer();
  EXPECT_TRUE(sent);
  releaser.join();
}

TEST(HsmAlive, AHandlerThatIsNotAliveSendsNothing) {
  Handler handler;
  handler.mAlive = false;
  handler.IntStopAliveTimer();  // without a running timer
  handler.IntStartAliveTimer();
  EXPECT_TRUE(Eventually([&] { return handler.mAsked > 0; }));
  handler.Sync();
  EXPECT_FALSE(handler.mTimes.Take(Clock::duration::zero()));
  handler.mAlive = true;
  EXPECT_TRUE(handler.mTimes.Take());  // at the next period
}
