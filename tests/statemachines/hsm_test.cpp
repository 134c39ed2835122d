#include "statemachines/hsm.h"

#include <gmock/gmock.h>

#include <chrono>

#include "tests/framework/handover.h"
#include "tests/framework/logcapture.h"
#include "tests/statemachines/doormachine.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class Hsm : public ::testing::Test {
 protected:
  Hsm() {
    mHandler->OnAction = [this](const std::string& action) {
      mActions.push_back(action);
      if (mReact) {
        mReact(action);
      }
    };
  }

  template <typename Event, typename... Payload>
  std::future<bool> Post(Payload... payload) {
    const auto event = std::make_shared<Event>(payload...);
    auto handled = event->mHandled.get_future();
    mMachine->PostEvent(event);
    return handled;
  }

  /// Runs the machine until it has done this.
  void RunUntil(const std::string& last) {
    mReact = [this, last](const std::string& action) {
      if (action == last) {
        mMachine->Stop();
      }
    };
    mMachine->Run();
  }

  LogCapture mLog;
  std::shared_ptr<DoorHandler> mHandler = std::make_shared<DoorHandler>();
  std::shared_ptr<DoorMachine> mMachine = std::make_shared<DoorMachine>(mHandler);
  std::vector<std::string> mActions;
  std::function<void(const std::string&)> mReact;
};

bool IsBroken(std::future<bool>& handled) {
  if (handled.wait_for(handover::kPatience) != std::future_status::ready) {
    return false;
  }
  try {
    handled.get();
    return false;
  } catch (const std::future_error& e) {
    return e.code() == std::future_errc::broken_promise;
  }
}

}  // namespace

TEST_F(Hsm, TracesEveryStepOfTheDispatchLetterForLetter) {
  auto opened = Post<Open>();
  auto knocked = Post<Knock>();
  auto rung = Post<Ring>();
  auto closed = Post<Close>();
  mReact = [this](const std::string&) {
    if (mActions.size() == 5) {  // closed again
      mMachine->Stop();
    }
  };
  mMachine->Run();
  EXPECT_TRUE(opened.get());
  EXPECT_TRUE(knocked.get());
  EXPECT_FALSE(rung.get());
  EXPECT_TRUE(closed.get());
  EXPECT_THAT(mActions, ElementsAre("enter Closed", "leave Closed", "enter Open", "knocked", "enter Closed"));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Trace),
              ElementsAre("State Door: init", "State Closed: entry",                         //
                          "State Closed: event recv Open", "State Closed: event hndl Open",  //
                          "State Closed: exit", "State Open: entry",                         //
                          "State Open: event recv Knock", "State Door: event hndl Knock",    //
                          "State Open: event recv Ring", "State Door: event unhn Ring",      //
                          "State Open: event recv Close", "State Door: event hndl Close",    //
                          "State Open: exit", "State Closed: entry"));
}

TEST_F(Hsm, AReactionReadsThePayloadAndASelfTransitionReenters) {
  Post<Say>("hello");
  Post<Close>();
  RunUntil("leave Closed");
  EXPECT_THAT(mActions, ElementsAre("enter Closed", "hello", "leave Closed", "enter Closed"));
}

TEST_F(Hsm, EventsOfOneReactionComeInOrderAfterThoseAlreadyQueued) {
  mReact = [this](const std::string& action) {
    if (action == "first") {
      Post<Say>("third");
      Post<Say>("fourth");
    } else if (action == "fourth") {
      mMachine->Stop();
    }
  };
  Post<Say>("first");
  Post<Say>("second");
  mMachine->Run();
  EXPECT_THAT(mActions, ElementsAre("enter Closed", "first", "second", "third", "fourth"));
}

TEST_F(Hsm, ThePosterIsReleasedBeforeTheReactionsActionsRun) {
  std::future<bool> opened = Post<Open>();
  bool released = false;
  mReact = [&](const std::string& action) {
    if (action == "leave Closed") {
      released = opened.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    } else if (action == "enter Open") {
      mMachine->Stop();
    }
  };
  mMachine->Run();
  EXPECT_TRUE(released);
}

TEST_F(Hsm, AStopLetsTheReactionFinishAndBreaksTheOtherPromises) {
  std::future<bool> queued;
  mReact = [&](const std::string& action) {
    if (action == "leave Closed") {
      mMachine->Stop();
      queued = Post<Knock>();
    }
  };
  Post<Open>();
  mMachine->Run();
  EXPECT_FALSE(mMachine->IsRunning());
  EXPECT_EQ(mActions.back(), "enter Open");
  EXPECT_TRUE(IsBroken(queued));
  auto late = Post<Knock>();
  EXPECT_TRUE(IsBroken(late));

  mLog.Clear();
  mMachine->Run();
  EXPECT_THAT(mLog.Console(), IsEmpty());
}

TEST_F(Hsm, AMachineStoppedBeforeItRanMakesOnlyTheInitialTransition) {
  auto opened = Post<Open>();
  mMachine->Stop();
  mMachine->Run();
  EXPECT_THAT(mActions, ElementsAre("enter Closed"));
  EXPECT_TRUE(IsBroken(opened));
}

TEST_F(Hsm, DestructionBreaksThePromisesOfQueuedEvents) {
  auto opened = Post<Open>();
  mMachine.reset();
  EXPECT_TRUE(IsBroken(opened));
}

TEST_F(Hsm, ANullEventIsDroppedWithoutATrace) {
  mMachine->PostEvent(nullptr);
  Post<Say>("after");
  RunUntil("after");
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Trace),
              ElementsAre("State Door: init", "State Closed: entry", "State Closed: event recv Say",
                          "State Closed: event hndl Say"));
}

TEST_F(Hsm, ExceptionsOfAnActionAreNotCaught) {
  mReact = [this](const std::string& action) {
    if (action == "hello" || action == "knocked") {
      throw std::runtime_error(action);
    } else if (action == "end") {
      mMachine->Stop();
    }
  };
  Post<Say>("hello");
  Post<Knock>();
  Post<Say>("end");
  EXPECT_THROW(mMachine->Run(), std::runtime_error);
  EXPECT_THROW(mMachine->Run(), std::runtime_error);
}

TEST_F(Hsm, SendEventNeedsAMachine) {
  DoorHandler lonely;
  try {
    lonely.SendEvent<Open>();
    FAIL() << "no exception";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), "CHsmActionHandlerBase: IHsmInterface not set");
  }
}
