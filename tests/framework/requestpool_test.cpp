#include "requestpool.h"

#include <gtest/gtest.h>

#include <functional>

#include "evidence.h"
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

TEST(RequestPool, AbandonsRequestsAndOutlivesAThreadThatReturnsLate) {
  const auto gate = std::make_shared<Gate>();
  const auto stuck = std::make_shared<Request>([gate] { gate->Pass(); });
  const auto waiting = std::make_shared<Request>([] { FAIL() << "an abandoned request was carried out"; });
  {
    CRequestPool pool("pool", 1, 3);
    pool.Submit(stuck);
    ASSERT_TRUE(gate->AwaitWaiting(1));
    pool.Submit(waiting);
    pool.Abandon();
    EXPECT_EQ(stuck->mOutcome.Take(), "abandoned");
    EXPECT_EQ(waiting->mOutcome.Take(), "abandoned");
    EXPECT_EQ(pool.Submit(waiting), CRequestPool::ESubmit::Stopping);
    EXPECT_FALSE(pool.Join(Clock::now() + milliseconds(20)));
  }
  gate->Open();
  EXPECT_EQ(stuck->mOutcome.Take(), "run");
  EXPECT_TRUE(Becomes([&] { return stuck.use_count() + waiting.use_count(); }, 2));
}

}  // namespace
