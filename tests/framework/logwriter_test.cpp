#include "logwriter.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <pty.h>
#include <signal.h>
#include <spdlog/sinks/ansicolor_sink-inl.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <stdexcept>
#include <vector>

#include "consolesink.h"
#include "evidence.h"
#include "framework/handover.h"

using namespace handover;

namespace {

std::shared_ptr<const LogLine> Line(const std::string& text) {
  return std::make_shared<const LogLine>(
      LogLine{Log::ELogLevel::Info, std::chrono::system_clock::now(), text});
}

/// A log that blocks until its gate is open, and refuses lines if told to.
struct Destination {
  bool Take(const LogLine& line) {
    mGate.Pass();
    if (mRefuses) {
      mRefused.Put(line.text);
      return line.level == Log::ELogLevel::Info ? throw std::runtime_error("refused") : false;
    }
    mTaken.Put((line.level == Log::ELogLevel::Warning ? "warning: " : "") + line.text);
    return true;
  }
  std::string Next() { return mTaken.Take().value_or("nothing"); }

  Gate mGate;
  std::atomic<bool> mRefuses{false};
  Mailbox<std::string> mTaken;
  Mailbox<std::string> mRefused;
};

struct LogWriterTest : testing::Test {
  ~LogWriterTest() override { mLog.mGate.Open(); }

  Destination mLog;
  CLogWriter mWriter{"a log", [this](const LogLine& line) { return mLog.Take(line); }};
};

/// What a sink writes to a terminal: a line for each level.
std::string OnATerminal(const std::function<std::shared_ptr<spdlog::sinks::sink>()>& makeSink) {
  int master = -1;
  int terminal = -1;
  termios raw{};
  cfmakeraw(&raw);
  EXPECT_EQ(openpty(&master, &terminal, nullptr, &raw, nullptr), 0);
  const int console = dup(STDERR_FILENO);
  dup2(terminal, STDERR_FILENO);
  const auto sink = makeSink();
  for (int level = spdlog::level::trace; level < spdlog::level::off; ++level) {
    sink->log({spdlog::log_clock::time_point(seconds(1)), spdlog::source_loc{}, "",
               static_cast<spdlog::level::level_enum>(level), "text"});
  }
  dup2(console, STDERR_FILENO);
  close(console);
  std::string shown;
  char character = 0;
  while (std::count(shown.begin(), shown.end(), '\n') < spdlog::level::off &&
         read(master, &character, 1) == 1) {
    shown += character;
  }
  close(terminal);
  close(master);
  return shown;
}

}  // namespace

TEST_F(LogWriterTest, AStuckLogLosesItsOldestLinesAndSaysWhere) {
  constexpr int kCount = 30000;
  const std::string padding(100, '.');
  mWriter.Push(Line("0" + padding));
  ASSERT_TRUE(mLog.mGate.AwaitWaiting(1));  // the log is stuck with the first line
  for (int i = 1; i < kCount; ++i) {
    mWriter.Push(Line(std::to_string(i) + padding));
  }
  mLog.mGate.Open();
  EXPECT_EQ(mLog.Next(), "0" + padding);
  std::string next = mLog.Next();
  int dropped = 0;
  ASSERT_EQ(sscanf(next.c_str(), "warning: %d log lines were dropped: this log did not take them.", &dropped),
            1)
      << next;
  EXPECT_GT(dropped, 0);
  int first = 0;
  next = mLog.Next();
  ASSERT_EQ(sscanf(next.c_str(), "%d.", &first), 1) << next;
  EXPECT_EQ(first - dropped, 1) << "every line is written or counted";
  const auto kept = static_cast<size_t>(kCount - first);
  EXPECT_GT(kept * padding.size(), kLogBacklog / 4);
  EXPECT_LT(kept * (padding.size() + sizeof(LogLine)), kLogBacklog);
  for (int i = first + 1; i < kCount; ++i) {
    ASSERT_EQ(mLog.Next(), std::to_string(i) + padding);
  }
  mWriter.Push(Line("last"));
  EXPECT_EQ(mLog.Next(), "last") << "the loss is reported once";
}

TEST_F(LogWriterTest, RefusedLinesAreCountedUntilTheLogTakesOne) {
  mLog.mGate.Open();
  mLog.mRefuses = true;
  for (const auto* refused : {"1", "1 log lines were dropped: this log did not take them.",
                              "2 log lines were dropped: this log did not take them."}) {
    mWriter.Push(Line("1"));
    EXPECT_EQ(mLog.mRefused.Take(), refused);
  }
  EXPECT_TRUE(mWriter.Flush(Clock::now() + kPatience));
  mLog.mRefuses = false;
  mWriter.Push(Line("4"));
  mWriter.Push(Line("5"));
  EXPECT_EQ(mLog.Next(), "warning: 3 log lines were dropped: this log did not take them.");
  EXPECT_EQ(mLog.Next(), "4");
  EXPECT_EQ(mLog.Next(), "5");
}

TEST_F(LogWriterTest, FlushWaitsForTheLineInHandToo) {
  EXPECT_TRUE(mWriter.Flush(Clock::now())) << "nothing is queued";
  mWriter.Push(Line("1"));
  ASSERT_TRUE(mLog.mGate.AwaitWaiting(1));
  EXPECT_FALSE(mWriter.Flush(Clock::now() + milliseconds(1)));
  mLog.mGate.Open();
  EXPECT_TRUE(mWriter.Flush(Clock::now() + kPatience));
  EXPECT_EQ(mLog.mTaken.Take(Clock::duration::zero()), "1");
}

TEST(LogThread, HasANameAndEverySignalBlocked) {
  Mailbox<std::string> names;
  CLogWriter writer("log-test", [&](const LogLine&) {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    for (const int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGALRM, SIGRTMIN, SIGRTMAX}) {
      EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    }
    char name[16]{};
    pthread_getname_np(pthread_self(), name, sizeof name);
    names.Put(name);
    return true;
  });
  writer.Push(Line("any"));
  EXPECT_EQ(names.Take(), "log-test");
}

TEST(ConsoleSink, ColoursTheLevelsOnATerminalAsSpdlogDoes) {
  setenv("TERM", "xterm", 1);
  const auto shown = OnATerminal([] { return std::make_shared<CConsoleSink>(); });
  EXPECT_EQ(shown, OnATerminal([] {
              auto sink = std::make_shared<spdlog::sinks::stderr_color_sink_mt>();
              sink->set_pattern("%Y-%m-%d %H:%M:%S.%e %^%-8l%$ %v");
              return sink;
            }));
  EXPECT_THAT(shown, testing::HasSubstr("\033[31m\033[1merror   \033[m text\n"));
}

TEST(ConsoleSink, ReportsFailedWritesAndWaitsForANonBlockingConsole) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  ASSERT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
  const int console = dup(STDERR_FILENO);
  dup2(ends[1], STDERR_FILENO);
  close(ends[1]);
  constexpr int kLines = 5000;  // more than the pipe holds
  std::atomic<int> taken{0};
  std::thread writer([&] {
    sigset_t signals;
    sigfillset(&signals);
    pthread_sigmask(SIG_SETMASK, &signals, nullptr);
    CConsoleSink sink;
    const auto write = [&] {
      sink.log({spdlog::log_clock::time_point{}, spdlog::source_loc{}, "", spdlog::level::info, "text"});
      return sink.TookLast();
    };
    for (int i = 0; i < kLines; ++i) {
      taken += write() ? 1 : 0;
    }
    while (write()) {  // until the reader closes the pipe
    }
  });
  std::string read(1, '\0');
  int lines = 0;
  while (lines < kLines && ::read(ends[0], read.data(), 1) == 1) {
    lines += read[0] == '\n' ? 1 : 0;
  }
  EXPECT_TRUE(Becomes([&] { return taken.load(); }, kLines));
  close(ends[0]);
  writer.join();
  dup2(console, STDERR_FILENO);
  close(console);
  EXPECT_EQ(lines, kLines);
}
