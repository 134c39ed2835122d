#include "framework/log.h"

// The system log's header has priorities of these names, and its sink needs them.
#undef LOG_DEBUG
#undef LOG_INFO
#undef LOG_WARNING

#include <cxxabi.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>
#include <syslog.h>

#include <cerrno>
#include <iterator>

#include "logtext.h"

std::atomic<bool> Log::mConsoleLoggingEnabled{true};
std::atomic<Log::ELogLevel> Log::mLevel{Log::ELogLevel::Info};

namespace {

struct Loggers {
  std::shared_ptr<spdlog::logger> syslog;
  std::shared_ptr<spdlog::logger> console;
};

/// Never destroyed: destructors of static objects and the terminate handler log, too.
Loggers& TheLoggers() {
  static auto* loggers = new Loggers;
  return *loggers;
}

std::atomic<bool> gOpen{false};

std::shared_ptr<spdlog::logger> Register(const char* name, spdlog::sink_ptr sink) {
  auto logger = std::make_shared<spdlog::logger>(name, std::move(sink));
  logger->set_level(spdlog::level::trace);  // the level is Log's affair
  logger->flush_on(spdlog::level::trace);
  spdlog::register_logger(logger);
  return logger;
}

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
  gOpen = false;
  Loggers& loggers = TheLoggers();
  // The old ones go first: the system-log sink closes the process's one connection when it is destroyed.
  spdlog::drop("syslog");
  spdlog::drop("console");
  loggers = {};

  loggers.syslog = Register(
      "syslog", std::make_shared<spdlog::sinks::syslog_sink_mt>(std::move(name), LOG_PID, LOG_DAEMON, false));
  auto console = std::make_shared<spdlog::sinks::stderr_color_sink_mt>();
  console->set_pattern("%Y-%m-%d %H:%M:%S.%e %^%-8l%$ %v");
  loggers.console = Register("console", std::move(console));
  mLevel = level;
  gOpen.store(true, std::memory_order_release);
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
  if (!gOpen.load(std::memory_order_acquire)) {
    return;
  }
  const int savedErrno = errno;  // a statement before "return errno" must not change it
  try {
    fmt::memory_buffer text;
    if (!file.empty()) {
      fmt::format_to(std::back_inserter(text), "({}:{}) ", file, line);
    }
    AppendStatement(text, format, args);

    const spdlog::string_view_t view(text.data(), text.size());
    const Loggers& loggers = TheLoggers();
    loggers.syslog->log(ToSpdlog(level), view);
    if (mConsoleLoggingEnabled.load(std::memory_order_relaxed)) {
      loggers.console->log(ToSpdlog(level), view);
    }
  } catch (...) {
    // Out of memory: nothing more can be said, and nobody but the log to say it to.
  }
  errno = savedErrno;
}
