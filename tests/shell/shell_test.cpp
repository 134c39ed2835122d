#include <gmock/gmock.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/logcapture.h"
#include "src/hublogger.h"
#include "src/interruptrelay.h"
#include "src/processcontrolservice.h"
#include "src/rfidservice.h"
#include "src/terminatehandler.h"

using ::testing::ElementsAre;
using ::testing::KilledBySignal;

namespace {

struct Unnamed {};

void TerminateWith(const std::function<void()>& raise) {
  Log::Init("test", Log::ELogLevel::Info);
  std::set_terminate(HandleTerminate);
  [&]() noexcept { raise(); }();
}

}  // namespace

TEST(TerminateHandler, SaysWhatEndedTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(TerminateWith([] { throw std::invalid_argument("a reason"); }), KilledBySignal(SIGABRT),
              "critical *Uncaught exception of type 'std::invalid_argument' with message: 'a reason'\n"
              ".*critical *Aborting process.");
  EXPECT_EXIT(TerminateWith([] { throw Unnamed(); }), KilledBySignal(SIGABRT),
              "critical *Uncaught exception of unknown type.\n.*critical *Aborting process.");
  EXPECT_EXIT(TerminateWith([] { std::terminate(); }), KilledBySignal(SIGABRT),
              "^[^U]*critical *Aborting process.");
}

TEST(InterruptRelay, CatchesSigintOnlyWhileItLivesAndOnAnotherThread) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer may hold a signal back that comes while a thread is being started";
#endif
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::promise<int> first;
  std::promise<int> second;
  std::function<void(int)> hook = [&](int signal) { first.set_value(signal); };
  {
    const CInterruptRelay relay(hook);
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGINT), 1);
    kill(getpid(), SIGINT);
    EXPECT_EQ(first.get_future().get(), SIGINT);
  }
  hook = [&](int signal) { second.set_value(signal); };
  {
    const CInterruptRelay again(hook);
    kill(getpid(), SIGINT);
    EXPECT_EQ(second.get_future().get(), SIGINT);
  }
  EXPECT_EXIT(raise(SIGINT), KilledBySignal(SIGINT), "");
  EXPECT_EXIT(
      {
        { const CInterruptRelay relay(hook); }
        raise(SIGINT);
      },
      KilledBySignal(SIGINT), "");
}

TEST(HubLogger, WritesEachMessageAtItsOwnLevel) {
  LogCapture log;
  Rpc::HubLogger logger;
  logger.Critical("c");
  logger.Error("e");
  logger.Warning("w");
  logger.Info("i");
  logger.Debug("d");
  logger.Trace("t");
  const auto lines = log.Console();
  ASSERT_EQ(lines.size(), 6U);
  const std::vector<std::string> texts{"c", "e", "w", "i", "d", "t"};
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].text, "[RPC] " + texts[i]);
    EXPECT_EQ(lines[i].level, 5 - static_cast<int>(i));
  }
}

TEST(Services, AnOperationWithoutItsCallableThrows) {
  CProcessControlService control;
  EXPECT_THROW(control.Enable(), std::bad_function_call);
  EXPECT_THROW(control.Disable(), std::bad_function_call);
  EXPECT_THROW(control.State({}), std::bad_function_call);
  EXPECT_THROW(control.Alive(), std::bad_function_call);
  CRfidService rfid;
  EXPECT_THROW(rfid.EnableLearning(true), std::bad_function_call);
  EXPECT_THROW(rfid.InjectToken("04A1B2C3"), std::bad_function_call);
  EXPECT_THROW(rfid.RfidToken({}), std::bad_function_call);
  EXPECT_THROW(rfid.RfidLearningToken("04A1B2C3"), std::bad_function_call);

  std::vector<std::string> sent;
  rfid.SendRfidLearningToken = [&](const std::string& uid) { sent.push_back(uid); };
  rfid.RfidLearningToken("04A1B2C3");
  EXPECT_THAT(sent, ElementsAre("04A1B2C3"));
}
