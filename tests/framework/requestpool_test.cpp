#include "requestpool.h"

#include <gtest/gtest.h>

#include <functional>

#include "rpctesting.h"

namespace {

using namespace rpctesting;

struct Request final : IRequest {
  explicit Request(std::function<void()> run) : mRun(std::move(run)) {}
  void Run() override {
    mRun();
    mOutcome.Put("run");
  }
  void Abandon() override { mOutcome.Put("abandoned"); }

  const std::function<void()> mRun;
  Mailbox<std::string> mOutcome;
};

TEST(RequestPool, RunsAsManyAsItHasThreadsAndRefusesBeyondItsQueue) {
  Gate gate;
  RequestPool pool("pool", 2, 3);
  pool.Start();
  std::vector<std::shared_ptr<Request>> requests;
  const auto submit = [&] {
    requests.push_back(std::make_shared<Request>([&] { gate.Pass(); }));
    return pool.Submit(requests.back());
  };
  ASSERT_EQ(submit(), RequestPool::ESubmit::Taken);
  ASSERT_EQ(submit(), RequestPool::ESubmit::Taken);
  ASSERT_TRUE(gate.AwaitWaiting(2));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(submit(), RequestPool::ESubmit::Taken);
  }
  EXPECT_EQ(submit(), RequestPool::ESubmit::Full);
  gate.Open();
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(requests[i]->mOutcome.Take(), "run");
  }
  pool.Abandon();
  EXPECT_TRUE(pool.Join(Clock::now() + Patience));
  EXPECT_EQ(submit(), RequestPool::ESubmit::Stopping);
}

TEST(RequestPool, AbandonsRunningAndWaitingRequestsAndOutlivesAThreadThatComesBackLate) {
  const auto gate = std::make_shared<Gate>();
  const auto stuck = std::make_shared<Request>([gate] { gate->Pass(); });
  const auto waiting = std::make_shared<Request>([] { FAIL() << "an abandoned request was carried out"; });
  {
    RequestPool pool("pool", 1, 3);
    pool.Start();
    pool.Submit(stuck);
    ASSERT_TRUE(gate->AwaitWaiting(1));
    pool.Submit(waiting);
    pool.Abandon();
    EXPECT_EQ(stuck->mOutcome.Take(), "abandoned");
    EXPECT_EQ(waiting->mOutcome.Take(), "abandoned");
    EXPECT_FALSE(pool.Join(Clock::now() + milliseconds(20)));
  }
  gate->Open();
  EXPECT_EQ(stuck->mOutcome.Take(), "run");
  EXPECT_TRUE(Eventually([&] { return stuck.use_count() == 1; }));
}

}  // namespace
