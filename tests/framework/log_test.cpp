#include "framework/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <cerrno>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "framework/handover.h"
#include "framework/interfaces.h"
#include "framework/logcapture.h"

namespace {

using namespace handover;
using testing::ElementsAre;
using testing::IsEmpty;
using Line = LogCapture::Line;
using Level = Log::ELogLevel;

/// Counts how often it is formatted; fails if told to.
struct Probe {
  int* formatted;
  bool fails = false;
};

class CallbackSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit CallbackSink(std::function<void(const std::string&)> callback) : mCallback(std::move(callback)) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    mCallback(std::string(message.payload.data(), message.payload.size()));
  }
  void flush_() override {}

 private:
  const std::function<void(const std::string&)> mCallback;
};

}  // namespace

template <>
struct fmt::formatter<Probe> {
  constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }
  auto format(const Probe& probe, fmt::format_context& context) const {
    ++*probe.formatted;
    if (probe.fails) {
      throw std::runtime_error("no text");
    }
    return fmt::format_to(context.out(), "probe");
  }
};

TEST(Log, BeforeInitNothingIsWritten) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Log::Critical("too early");
        std::exit(Log::Flush(std::chrono::milliseconds(0)) ? 0 : 1);
      },
      testing::ExitedWithCode(0), "^$");
}

TEST(Log, EveryLineGoesToBothLogsAtItsLevel) {
  const LogCapture capture;
  Log::Trace("number {}", 0);
  Log::Debug("number {}", 1);
  Log::Info("number {}", 2);
  Log::Warning("number {}", 3);
  Log::Error("number {}", 4);
  Log::Critical("number {}", 5);

  // The system log's priorities: 7 debug, 6 info, 4 warning, 3 error, 2 critical.
  EXPECT_THAT(capture.System(), ElementsAre(Line{7, "number 0"}, Line{7, "number 1"}, Line{6, "number 2"},
                                            Line{4, "number 3"}, Line{3, "number 4"}, Line{2, "number 5"}));
  EXPECT_THAT(capture.Console(), ElementsAre(Line{0, "number 0"}, Line{1, "number 1"}, Line{2, "number 2"},
                                             Line{3, "number 3"}, Line{4, "number 4"}, Line{5, "number 5"}));
}

TEST(Log, BothLogsHaveTheLinesOfAllThreadsInTheSameOrder) {
  const LogCapture capture;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([thread] {
      for (int i = 0; i < 500; ++i) {
        Log::Info("thread {} line {}", thread, i);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  const auto texts = [](const std::vector<Line>& lines) {
    std::vector<std::string> result;
    for (const auto& line : lines) {
      result.push_back(line.text);
    }
    return result;
  };
  const auto system = texts(capture.System());
  EXPECT_EQ(system.size(), 2000U);
  EXPECT_EQ(system, texts(capture.Console()));
}

TEST(Log, AConsoleThatIsStuckCostsTheSystemLogNothing) {
  LogCapture capture;  // earlier lines are written now, so the sinks may change
  auto& console = spdlog::get("console")->sinks();
  auto& system = spdlog::get("syslog")->sinks();
  Gate gate;
  Mailbox<std::string> taken;
  console.push_back(std::make_shared<CallbackSink>([&](const std::string&) { gate.Pass(); }));
  system.push_back(std::make_shared<CallbackSink>([&](const std::string& text) { taken.Put(text); }));
  for (int i = 0; i < 1000; ++i) {
    Log::Info("{}", i);
    ASSERT_EQ(taken.Take(), std::to_string(i));
  }
  EXPECT_FALSE(Log::Flush(std::chrono::milliseconds(1)));
  for (int i = 0; i < 1000; ++i) {  // would take half an hour if each waited for the console
    Log::Critical("the end");
    ASSERT_EQ(taken.Take(Clock::duration::zero()), "the end")
        << "the statement did not wait for the system log";
  }
  gate.Open();
  EXPECT_EQ(capture.Console().size(), 2000U);
  console.pop_back();
  system.pop_back();
}

TEST(Log, ARegularEndWaitsForTheLogs) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Log::Init("test", Level::Info);
        for (int i = 0; i < 1000; ++i) {
          Log::Info("number {}", i);
        }
        std::exit(0);
      },
      testing::ExitedWithCode(0), "info     number 0\n(.*\n)+.*info     number 999\n$");
}

TEST(Log, QuietSilencesTheConsoleOnly) {
  const LogCapture capture;
  Log::EnableConsoleLogging(false);
  Log::Error("unseen");
  EXPECT_THAT(capture.Console(), IsEmpty());
  EXPECT_THAT(capture.System(), ElementsAre(Line{3, "unseen"}));
}

TEST(Log, AComponentsLineBeginsWithItsSourcePosition) {
  const LogCapture capture;
  const int line = __LINE__ + 1;
  LOG_WARNING("Found {} at {}", "x", 7);
  EXPECT_EQ(capture.Console().at(0).text,
            fmt::format("(tests/framework/log_test.cpp:{}) Found x at 7", line));
}

TEST(Log, AStatementBelowTheLevelFormatsNothing) {
  const LogCapture capture;
  int formatted = 0;
  Log::Init("the same logs", Level::Warning);
  Log::Info("{}", Probe{&formatted});
  LOG_INFO("{}", Probe{&formatted});
  EXPECT_EQ(formatted, 0);
  EXPECT_THAT(capture.System(), IsEmpty());

  Log::Warning("{}", Probe{&formatted});
  EXPECT_THAT(capture.Texts(Level::Warning), ElementsAre("probe"));
}

TEST(Log, AStatementThatCannotBeFormattedIsWrittenAsItIs) {
  const LogCapture capture;
  int formatted = 0;
  errno = ENOENT;
  Log::Error("value {}", Probe{&formatted, true});
  EXPECT_THAT(capture.Texts(Level::Error), ElementsAre("value {}"));
  EXPECT_EQ(errno, ENOENT) << "a log statement must not change what its caller is about to report";
}

TEST(Log, TextFromOutsideForgesNoLines) {
  const struct {
    std::string text;
    std::string written;
  } cases[] = {
      {"04A1\nRfid: Enabled", "04A1\\x0aRfid: Enabled"},
      {"\r\t\x1b[2Jgone", "\\x0d\\x09\\x1b[2Jgone"},
      {std::string("a\0b\x7f", 4), "a\\x00b\\x7f"},
      {"\xc2\x9b"
       "31m",
       "\\xc2\\x9b31m"},  // the C1 form of ESC [
      {"gr\xc3\xbcn \xe2\x82\xac \xf0\x9f\x9a\x97",
       "gr\xc3\xbcn \xe2\x82\xac \xf0\x9f\x9a\x97"},            // valid UTF-8
      {"\xc0\x8a \xe0\x80\x8a", "\\xc0\\x8a \\xe0\\x80\\x8a"},  // overlong line feeds
      {"\xed\xa0\x80 \xf4\x90\x80\x80",
       "\\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80"},  // a surrogate, and beyond Unicode
      {"cut \xe2\x82", "cut \\xe2\\x82"},
  };
  for (const auto& [text, written] : cases) {
    const LogCapture capture;
    Log::Info("{}", text);
    EXPECT_THAT(capture.Texts(Level::Info), ElementsAre(written));
  }
}

TEST(Log, AnOverlongLineIsCutAndSaysByHowMuch) {
  const LogCapture capture;
  Log::Info("{}", std::string(65536, 'x'));
  Log::Info("{}", std::string(65536, '\n'));
  Log::Info("{}{}", std::string(4095, 'x'), "\xe2\x82\xac");
  EXPECT_THAT(capture.Texts(Level::Info), ElementsAre(std::string(4096, 'x') + " ... (61440 bytes more)",
                                                      testing::EndsWith("\\x0a ... (64512 bytes more)"),
                                                      std::string(4095, 'x') + " ... (3 bytes more)"));
  for (const Line& line : capture.System()) {
    EXPECT_LT(line.text.size(), 4096U + 40);
  }
}

TEST(Log, TheLevelChangesWhileOthersLog) {
  const LogCapture capture;
  const auto service = Log::CreateLogConfigService();
  ipc::MLogLevel level;

  std::atomic<bool> done{false};
  std::thread other([&] {
    while (!done) {
      Log::Trace("noise");
    }
  });
  for (const auto next :
       {ipc::ELogCritical, ipc::ELogError, ipc::ELogWarning, ipc::ELogInfo, ipc::ELogDebug, ipc::ELogDebug}) {
    level.set_level(next);
    EXPECT_EQ(service->SetLogLevel(level).result(), ipc::EResultOk);
    EXPECT_EQ(static_cast<int>(Log::GetLogLevel()), static_cast<int>(next));
    EXPECT_EQ(service->GetLogLevel().level(), next);
  }
  for (const int outside : {-1, 6}) {
    level.set_level(static_cast<ipc::ELogLevel>(outside));
    EXPECT_EQ(service->SetLogLevel(level).result(), ipc::EResultIllegal);
    EXPECT_EQ(Log::GetLogLevel(), Level::Debug);
  }
  done = true;
  other.join();
  EXPECT_THAT(capture.Texts(Level::Info), ElementsAre("Log level changed from trace to critical.",
                                                      "Log level changed from warning to info.",
                                                      "Log level changed from info to debug."));
}

TEST(Log, DemanglesNamesAndGivesNothingForOthers) {
  EXPECT_STREQ(Log::Demangle(typeid(Probe).name()).get(), "(anonymous namespace)::Probe");
  EXPECT_EQ(Log::Demangle("not a name").get(), nullptr);
  EXPECT_EQ(Log::Demangle(nullptr).get(), nullptr);
}
