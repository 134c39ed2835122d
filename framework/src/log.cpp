#include "framework/log.h"

// The system log's header has priorities of these names, and its sink needs them.
#undef LOG_DEBUG
#undef LOG_INFO
#undef LOG_WARNING

#include <cxxabi.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <mutex>

#include "consolesink.h"
#include "logtext.h"
#include "logwriter.h"

std::atomic<bool> Log::mConsoleLoggingEnabled{true};
std::atomic<Log::ELogLevel> Log::mLevel{Log::ELogLevel::Info};

namespace {

/// How long a critical line and the end of the process wait for the logs.
constexpr std::chrono::seconds kFlushTimeout(2);

/// How long the first line for the system log waits for others. A card writes ten lines in this time, so they
/// wake the writer once.
constexpr std::chrono::milliseconds kGather(2);

static_assert(static_cast<int>(Log::ELogLevel::Trace) == spdlog::level::trace &&
              static_cast<int>(Log::ELogLevel::Critical) == spdlog::level::critical);

std::shared_ptr<spdlog::logger> Register(const char* name, spdlog::sink_ptr sink) {
  auto logger = std::make_shared<spdlog::logger>(name, std::move(sink));
  logger->set_level(spdlog::level::trace);               // Log filters by level
  logger->set_error_handler([](const std::string&) {});  // the default writes to a console that may be stuck
  spdlog::register_logger(logger);
  return logger;
}

void Send(spdlog::logger& logger, const LogLine& line) {
  logger.log(line.time, spdlog::source_loc{}, static_cast<spdlog::level::level_enum>(line.level), line.text);
}

CLogWriter::Write ToSystemLog(std::string name) {
  // With LOG_PID, the C library would ask the kernel for the number at each line.
  const auto ident = std::move(name) + fmt::format("[{}]", getpid());
  auto sink = std::make_shared<spdlog::sinks::syslog_sink_mt>(ident, 0, LOG_DAEMON, false);
  return [logger = Register("syslog", std::move(sink))](const LogLine& line) {
    Send(*logger, line);
    return true;
  };
}

CLogWriter::Write ToConsole() {
  auto sink = std::make_shared<CConsoleSink>();
  return [sink, logger = Register("console", sink)](const LogLine& line) {
    Send(*logger, line);
    return sink->TookLast();
  };
}

struct Logs {
  explicit Logs(std::string name) : system("log-system", ToSystemLog(std::move(name)), kGather) {}

  bool FlushConsole(std::chrono::steady_clock::time_point deadline) const {
    CLogWriter* const writer = console;
    return writer == nullptr || writer->Flush(deadline);
  }

  const CLogWriter::Write toConsole = ToConsole();
  std::mutex order;  // both writers get the lines in the same order
  CLogWriter system;
  std::atomic<CLogWriter*> console{nullptr};  // from the first line on
  std::atomic<bool> systemIsStuck{false};
  std::atomic<bool> consoleIsStuck{false};
};

/// Never destroyed: destructors of static objects and the terminate handler also log, and a thread that is
/// stuck in a log cannot be joined.
std::atomic<Logs*> gLogs{nullptr};
std::atomic<bool> gEnding{false};

/// Waits until both logs are written. Does not wait again for a log that was stuck the last time, so that all
/// the last lines of a process together take two seconds at most.
void AwaitLogs(Logs& logs) {
  const auto now = std::chrono::steady_clock::now();
  logs.systemIsStuck = !logs.system.Flush(logs.systemIsStuck ? now : now + kFlushTimeout);
  logs.consoleIsStuck = !logs.FlushConsole(logs.consoleIsStuck ? now : now + kFlushTimeout);
}

void AppendStatement(fmt::memory_buffer& line, fmt::string_view format, fmt::format_args args) {
  fmt::memory_buffer text;
  try {
    fmt::vformat_to(std::back_inserter(text), format, args);
  } catch (const std::exception&) {
    // Write the format instead: it still says what the statement is about.
    text.clear();
    text.append(format.data(), format.data() + format.size());
  }
  AppendLogText(line, {text.data(), text.size()});
}

}  // namespace

void Log::Init(std::string name, ELogLevel level) {
  mLevel = level;
  if (gLogs.load(std::memory_order_acquire) != nullptr) {
    return;
  }
  auto* const logs = new Logs(std::move(name));
  gLogs.store(logs, std::memory_order_release);
  std::atexit([] {
    gEnding = true;
    AwaitLogs(*gLogs);
  });
}

Log::ELogLevel Log::GetLowerLogLevel(ELogLevel level) {
  return level == ELogLevel::Trace ? level : static_cast<ELogLevel>(static_cast<int>(level) - 1);
}

void Log::SetLogLevel(ELogLevel level) {
  mLevel = level;
}

void Log::EnableConsoleLogging(bool enable) {
  mConsoleLoggingEnabled = enable;
}

std::unique_ptr<char, decltype(&std::free)> Log::Demangle(const char* name) {
  int status = 0;
  char* text = name != nullptr ? abi::__cxa_demangle(name, nullptr, nullptr, &status) : nullptr;
  return {text, &std::free};
}

void Log::WriteLine(ELogLevel level, std::string_view file, int line, fmt::string_view format,
                    fmt::format_args args) noexcept {
  Logs* const logs = gLogs.load(std::memory_order_acquire);
  if (logs == nullptr) {
    return;
  }
  const int savedErrno = errno;  // a log statement must not change what its caller is about to return
  try {
    fmt::memory_buffer text;
    if (!file.empty()) {
      fmt::format_to(std::back_inserter(text), "({}:{}) ", file, line);
    }
    AppendStatement(text, format, args);

    const auto written = std::make_shared<const LogLine>(
        LogLine{level, std::chrono::system_clock::now(), fmt::to_string(text)});
    {
      const std::lock_guard order(logs->order);
      logs->system.Push(written);
      if (mConsoleLoggingEnabled.load(std::memory_order_relaxed)) {
        if (logs->console == nullptr) {
          logs->console = new CLogWriter("log-console", logs->toConsole);
        }
        logs->console.load()->Push(written);
      }
    }
    if (level == ELogLevel::Critical || gEnding) {
      AwaitLogs(*logs);
    }
  } catch (...) {
    // Out of memory. Only the log could report it, so drop the line.
  }
  errno = savedErrno;
}

bool Log::Flush(std::chrono::milliseconds limit) {
  Logs* const logs = gLogs.load(std::memory_order_acquire);
  if (logs == nullptr) {
    return true;
  }
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const bool system = logs->system.Flush(deadline);
  return logs->FlushConsole(deadline) && system;
}
