#include <gmock/gmock.h>

#include <future>
#include <memory>
#include <string>
#include <thread>

#include "src/servicenotify.h"
#include "statemachines/doormachine.h"

namespace {

/// A machine that runs, a monitor that moves when the test says so, and the feeds counted.
class WatchdogFeeder : public ::testing::Test {
 protected:
  WatchdogFeeder() {
    mHandler->OnAction = [this](const std::string& action) {
      if (action == "knocked") {
        mHangs.set_value();
        mRelease.get_future().wait();
      }
    };
    mThread = std::thread([this] { mMachine->Run(); });
  }
  ~WatchdogFeeder() override { EndMachine(); }

  void EndMachine() {
    if (mThread.joinable()) {
      mMachine->Stop();
      mThread.join();
    }
  }

  /// Looks until the next feed.
  void AwaitFeed() {
    for (const int before = mFeeds; mFeeds == before; std::this_thread::yield()) {
      mFeeder.Look();
    }
  }
  /// The number of feeds from many looks, after the earlier proof is used up.
  int FeedsOfManyLooks() {
    mFeeder.Look();
    const int before = mFeeds;
    for (int look = 0; look < 1000; ++look) {
      mFeeder.Look();
    }
    return mFeeds - before;
  }

  std::shared_ptr<DoorHandler> mHandler = std::make_shared<DoorHandler>();
  std::shared_ptr<DoorMachine> mMachine = std::make_shared<DoorMachine>(mHandler);
  bool mMonitorMoves = true;
  int mFeeds = 0;
  CWatchdogFeeder mFeeder{mMachine, [this] { return mMonitorMoves; }, [this] { ++mFeeds; }};
  std::promise<void> mHangs;
  std::promise<void> mRelease;
  std::thread mThread;
};

}  // namespace

TEST_F(WatchdogFeeder, StarvesTheWatchdogWhileAnActionHangs) {
  AwaitFeed();
  AwaitFeed();
  mMachine->PostEvent(std::make_shared<Knock>());
  mHangs.get_future().wait();
  EXPECT_EQ(FeedsOfManyLooks(), 0);
  mRelease.set_value();
  AwaitFeed();
}

TEST_F(WatchdogFeeder, StarvesTheWatchdogWhileTheMonitorStandsStill) {
  AwaitFeed();
  mMonitorMoves = false;
  EXPECT_EQ(FeedsOfManyLooks(), 0);
  mMonitorMoves = true;
  AwaitFeed();
}

TEST_F(WatchdogFeeder, StarvesTheWatchdogOnceTheMachineHasEnded) {
  AwaitFeed();
  EndMachine();
  mFeeder.Look();  // the machine may have taken the last probe
  EXPECT_EQ(FeedsOfManyLooks(), 0);
}
