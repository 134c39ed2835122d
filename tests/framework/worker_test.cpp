#include "framework/worker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "evidence.h"
#include "framework/handover.h"
#include "framework/logcapture.h"

namespace {

using namespace std::chrono_literals;
using handover::Clock;
using handover::Gate;
using handover::Mailbox;

constexpr auto kDeadline = handover::kPatience;

}  // namespace

TEST(Worker, PeriodsDoNotDrift) {
  // After a call that is half a period late the next one follows half a period later. Try again if the
  // machine stalls meanwhile.
  const auto period = 200ms;
  const auto pauseAfterALateCall = [&] {
    Mailbox<Clock::time_point> times;
    CWorker worker;
    worker.AddCall([&] { times.Put(Clock::now()); }, Clock::now() - period / 2, period);
    worker.Start();
    const auto late = times.Take();
    const auto next = times.Take();
    return late && next ? std::chrono::duration<double, std::milli>(*next - *late).count() : 1e9;
  };
  EXPECT_TRUE(Becomes(pauseAfterALateCall, testing::Lt(150)));
}

TEST(Worker, MissedPeriodsAreSkipped) {
  CWorker worker;
  const auto period = 10ms;
  const auto first = Clock::now() - 1000 * period;
  std::vector<Clock::time_point> times;
  std::promise<void> enough;
  worker.AddCall(
      [&] {
        times.push_back(Clock::now());
        if (times.size() == 3) {
          enough.set_value();
        }
      },
      first, period);
  worker.Start();
  ASSERT_EQ(enough.get_future().wait_for(kDeadline), std::future_status::ready);
  worker.Stop();
  for (std::size_t i = 1; i < times.size(); ++i) {
    EXPECT_NE((times[i] - first) / period, (times[i - 1] - first) / period) << "two calls in one period";
  }
}

TEST(Worker, ACallThatThrowsDoesNotEndTheWorker) {
  const LogCapture capture;
  CWorker worker;
  int calls = 0;
  std::promise<void> fourth;
  worker.AddCall(
      [&] {
        switch (++calls) {
          case 1:
            throw std::runtime_error("no light");
          case 2:
            throw 2;
          case 4:
            fourth.set_value();
            break;
          default:
            break;
        }
      },
      Clock::now(), 1ms);
  worker.Start();
  EXPECT_EQ(fourth.get_future().wait_for(kDeadline), std::future_status::ready);
  worker.Stop();
  EXPECT_THAT(capture.Texts(Log::ELogLevel::Error),
              testing::ElementsAre("A scheduled call failed: no light",
                                   "A scheduled call failed with an unknown exception."));
}

TEST(Worker, SyncWaitsForACancelledCallInProgress) {
  CWorker worker;
  worker.Start();
  Gate gate;
  std::atomic<bool> ended{false};
  std::atomic<int> later{0};
  auto owned = std::make_shared<int>(1);
  const std::weak_ptr<int> kept = owned;
  const auto call = worker.AddCall(
      [&, owned] {
        gate.Pass();
        ended = true;
      },
      Clock::now(), 1h);
  owned.reset();
  ASSERT_TRUE(gate.AwaitWaiting(1));
  worker.AddCall([&] { ++later; }, Clock::now(), 1h);  // due, but it cannot start yet
  call->Cancel();

  auto synced = std::async(std::launch::async, [&] {
    worker.Sync();
    return ended && later == 1;
  });
  EXPECT_EQ(synced.wait_for(20ms), std::future_status::timeout);
  gate.Open();
  ASSERT_EQ(synced.wait_for(kDeadline), std::future_status::ready);
  EXPECT_TRUE(synced.get());
  EXPECT_TRUE(kept.expired()) << "a cancelled call must not keep what its function owns";
}

TEST(Worker, ACallMayCancelItselfAddOthersAndSync) {
  CWorker worker;
  std::shared_ptr<CWorkerCall> call;
  int calls = 0;
  std::promise<int> added;
  call = worker.AddCall(
      [&] {
        ++calls;
        call->Cancel();
        worker.Sync();
        worker.AddCall(
            [&, once = true]() mutable {
              if (std::exchange(once, false)) {
                added.set_value(calls);
              }
            },
            Clock::now() + 5ms, 1h);
      },
      Clock::now(), 1ms);
  worker.Start();
  worker.Start();  // does nothing
  auto result = added.get_future();
  ASSERT_EQ(result.wait_for(kDeadline), std::future_status::ready);
  EXPECT_EQ(result.get(), 1);
}

TEST(Worker, StopEndsSyncsAndHandlesOutliveTheWorker) {
  auto worker = std::make_unique<CWorker>();
  worker->Sync();  // returns at once: not running
  Gate gate;
  auto owned = std::make_shared<int>(1);
  const std::weak_ptr<int> kept = owned;
  const auto call = worker->AddCall([&gate, owned] { gate.Pass(); }, Clock::now(), 1ms);
  owned.reset();
  worker->Start();
  ASSERT_TRUE(gate.AwaitWaiting(1));

  auto synced = std::async(std::launch::async, [&] { worker->Sync(); });
  auto stopped = std::async(std::launch::async, [&] { worker->Stop(); });
  EXPECT_EQ(stopped.wait_for(20ms), std::future_status::timeout) << "Stop waits for the call in progress";
  gate.Open();
  EXPECT_EQ(stopped.wait_for(kDeadline), std::future_status::ready);
  EXPECT_EQ(synced.wait_for(kDeadline), std::future_status::ready);

  worker.reset();
  EXPECT_TRUE(kept.expired());
  call->Cancel();  // the handle outlives the worker
}

TEST(Worker, RefusesASchedulerLoop) {
  CWorker worker;
  EXPECT_THROW(worker.AddCall([] {}, Clock::now(), 0ns), std::invalid_argument);
  EXPECT_THROW(worker.AddCall({}, Clock::now(), 1s), std::invalid_argument);
}
