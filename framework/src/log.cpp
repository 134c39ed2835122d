#include "framework/log.h"

// The system log's header has priorities of these names, and its sink needs them.
#undef LOG_DEBUG
#undef LOG_INFO
#undef LOG_WARNING

#include <cxxabi.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>
#include <syslog.h>

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

/// How long a critical line, and the end of the process, wait for the logs.
constexpr std::chrono::seconds kPatience(2);

spdlog::level::level_enum ToSpdlog(Log::ELogLevel level) {
  switch (level) {
    case Log::ELogLevel::Trace:
      return spdlog::level::trace;
    case Log::ELogLevel::Debug:
      return spdlog::level::debug;
    case Log::ELogLevel::Info:
      return spdlog::level::info;
    case Log::ELogLevel::Warning:
      return spdlog::level::warn;
    case Log::ELogLevel::Error:
      return spdlog::level::err;
    case Log::ELogLevel::Critical:
      return spdlog::level::critical;
  }
  return spdlog::level::critical;
}

std::shared_ptr<spdlog::logger> Register(const char* name, spdlog::sink_ptr sink) {
  auto logger = std::make_shared<spdlog::logger>(name, std::move(sink));
  logger->set_level(spdlog::level::trace);               // the level is Log's affair
  logger->set_error_handler([](const std::string&) {});  // its own writes to the console, which may be stuck
  spdlog::register_logger(logger);
  return logger;
}

void Send(spdlog::logger& logger, const LogLine& line) {
  logger.log(line.time, spdlog::source_loc{}, ToSpdlog(line.level), line.text);
}

CLogWriter::Write ToSystemLog(std::string name) {
  auto sink = std::make_shared<spdlog::sinks::syslog_sink_mt>(std::move(name), LOG_PID, LOG_DAEMON, false);
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
  explicit Logs(std::string name)
      : system("log-system", ToSystemLog(std::move(name))), console("log-console", ToConsole()) {}

  std::mutex order;  // lines come to both writers in the same order
  CLogWriter system;
  CLogWriter console;
  std::atomic<bool> systemIsStuck{false};
  std::atomic<bool> consoleIsStuck{false};
};

/// Never destroyed: destructors of static objects and the terminate handler log, too, and a thread that a log
/// holds up cannot be joined.
std::atomic<Logs*> gLogs{nullptr};
std::atomic<bool> gEnding{false};

/// What must not be lost waits for both logs. For one that is stuck only the first such line waits, so that
/// the last words of a process, several lines, take two seconds at most together.
void AwaitLogs(Logs& logs) {
  const auto now = std::chrono::steady_clock::now();
  logs.systemIsStuck = !logs.system.Flush(logs.systemIsStuck ? now : now + kPatience);
  logs.consoleIsStuck = !logs.console.Flush(logs.consoleIsStuck ? now : now + kPatience);
}

void AppendStatement(fmt::memory_buffer& line, fmt::string_view format, fmt::format_args args) {
  fmt::memory_buffer text;
  try {
    fmt::vformat_to(std::back_inserter(text), format, args);
  } catch (const std::exception&) {
    // A statement that cannot be formatted still says where it is and what it is about.
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
  const int savedErrno = errno;  // a statement before "return errno" must not change it
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
        logs->console.Push(written);
      }
    }
    if (level == ELogLevel::Critical || gEnding) {
      AwaitLogs(*logs);
    }
  } catch (...) {
    // Out of memory: nothing more can be said, and nobody but the log to say it to.
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
  return logs->console.Flush(deadline) && system;
}
