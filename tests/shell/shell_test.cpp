#include <gmock/gmock.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "src/commandline.h"
#include "src/hublogger.h"
#include "src/interruptrelay.h"
#include "src/processcontrolservice.h"
#include "src/rfidservice.h"
#include "src/terminatehandler.h"
#include "tests/framework/logcapture.h"
#include "tests/statemachines/doormachine.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::KilledBySignal;
using ::testing::StartsWith;

namespace {

struct Unnamed {};

void TerminateWith(const std::function<void()>& raise) {
  Log::Init("test", Log::ELogLevel::Info);
  std::set_terminate(HandleTerminate);
  [&]() noexcept { raise(); }();
}

/// A machine whose action fails when the event is dispatched.
void DispatchAndThrow(const std::shared_ptr<IHsmEvent>& event) {
  Log::Init("test", Log::ELogLevel::Info);
  std::set_terminate(HandleTerminate);
  const auto handler = std::make_shared<DoorHandler>();
  handler->OnAction = [&](const std::string& action) {
    if (action != "enter Closed") {
      handler->mHsm->Stop();
      throw std::runtime_error("failed: " + action);
    }
  };
  DoorMachine machine(handler);
  machine.PostEvent(event);
  machine.Run();
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

TEST(TerminateHandler, EndsTheProcessWhenAnExceptionEscapesAReaction) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string text = "critical *Uncaught exception of type 'std::runtime_error' with message: '";
  EXPECT_EXIT(std::thread([] { DispatchAndThrow(std::make_shared<Knock>()); }).join(),
              KilledBySignal(SIGABRT), text + "failed: knocked'\n.*critical *Aborting process.");
  // An exception from a leaf's own transition never reaches the caller.
  EXPECT_EXIT(
      try { DispatchAndThrow(std::make_shared<Open>()); } catch (const std::exception&) { std::exit(0); },
      KilledBySignal(SIGABRT), text + "failed: leave Closed'\n.*critical *Aborting process.");
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

TEST(CommandLine, OptionsBeforeARejectedOneCountWhenTheUsageIsPrinted) {
  const LogCapture log;
  Log::SetLogLevel(Log::ELogLevel::Info);
  std::vector<std::string> words{"rfidd", "-q", "-v", "-x"};
  std::vector<char*> arguments;
  for (auto& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(ParseCommandLine(static_cast<int>(words.size()), arguments.data()));
  EXPECT_THAT(::testing::internal::GetCapturedStdout(), StartsWith("usage: rfidd [OPTION]\n"));
  Log::Debug("debug");
  Log::Trace("trace");
  EXPECT_THAT(log.System(), ElementsAre(LogCapture::Line{7, "debug"}));
  EXPECT_THAT(log.Console(), IsEmpty());
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
