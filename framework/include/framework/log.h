#pragma once

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "framework/format.h"

class ILogConfig;

/// The daemon's log: every statement goes to the system log and, while console logging is enabled, to the
/// console (standard error).
///
/// Threads: any, except that Init must run before the other threads start. A statement formats its line and
/// queues it for the thread of each log ("log-system", "log-console"), in the same order for both; it does
/// not wait for the logs. When the queue of a log is full, its oldest lines are dropped, and a line in their
/// place says how many; the other log is not affected. Queued lines are lost when the process is killed.
/// Critical statements and the regular end of the process wait until both logs are written, two seconds at
/// most.
///
/// A statement below the level costs one atomic load and formats nothing. One statement writes one line:
/// control characters are written as \xNN and long lines are cut, so that text from outside cannot forge log
/// lines. Statements never throw.
class Log {
 public:
  enum class ELogLevel { Trace = 0, Debug = 1, Info = 2, Warning = 3, Error = 4, Critical = 5 };

  /// Opens the two logs, once in a process; later calls only set the level. `name` identifies the process in
  /// the system log. Before Init nothing is written. The loggers are registered with spdlog as "syslog" and
  /// "console", so that a sink can be added before the first statement. Throws std::system_error when the
  /// system log's thread cannot be started.
  static void Init(std::string name, ELogLevel level);

  /// Waits until all earlier lines are in both logs. Returns false when that takes longer than `limit`.
  static bool Flush(std::chrono::milliseconds limit);

  /// The next more verbose level; Trace stays Trace.
  static ELogLevel GetLowerLogLevel(ELogLevel level);
  static void SetLogLevel(ELogLevel level);
  static ELogLevel GetLogLevel() { return mLevel.load(std::memory_order_relaxed); }
  static void EnableConsoleLogging(bool enable);

  /// The readable form of a mangled C++ name; empty when it cannot be demangled.
  static std::unique_ptr<char, decltype(&std::free)> Demangle(const char* name);

  /// The service through which other daemons read and change the log level.
  static std::shared_ptr<ILogConfig> CreateLogConfigService();

  static bool IsEnabled(ELogLevel level) { return level >= GetLogLevel(); }

  template <typename... Args>
  static void Write(ELogLevel level, fmt::format_string<Args...> format, Args&&... args) {
    if (IsEnabled(level)) {
      WriteLine(level, {}, 0, format, fmt::make_format_args(args...));
    }
  }

  template <typename... Args>
  static void WriteAt(ELogLevel level, std::string_view file, int line, fmt::format_string<Args...> format,
                      Args&&... args) {
    WriteLine(level, file, line, format, fmt::make_format_args(args...));
  }

  template <typename... Args>
  static void Trace(fmt::format_string<Args...> format, Args&&... args) {
    Write(ELogLevel::Trace, format, std::forward<Args>(args)...);
  }
  template <typename... Args>
  static void Debug(fmt::format_string<Args...> format, Args&&... args) {
    Write(ELogLevel::Debug, format, std::forward<Args>(args)...);
  }
  template <typename... Args>
  static void Info(fmt::format_string<Args...> format, Args&&... args) {
    Write(ELogLevel::Info, format, std::forward<Args>(args)...);
  }
  template <typename... Args>
  static void Warning(fmt::format_string<Args...> format, Args&&... args) {
    Write(ELogLevel::Warning, format, std::forward<Args>(args)...);
  }
  template <typename... Args>
  static void Error(fmt::format_string<Args...> format, Args&&... args) {
    Write(ELogLevel::Error, format, std::forward<Args>(args)...);
  }
  template <typename... Args>
  static void Critical(fmt::format_string<Args...> format, Args&&... args) {
    Write(ELogLevel::Critical, format, std::forward<Args>(args)...);
  }

  static std::atomic<bool> mConsoleLoggingEnabled;

 private:
  static void WriteLine(ELogLevel level, std::string_view file, int line, fmt::string_view format,
                        fmt::format_args args) noexcept;

  static std::atomic<ELogLevel> mLevel;
};

/// Log statements that begin with their source position: "(src/components/nfcnetlink.cpp:123) Polling
/// started."
#define LOG_AT_LEVEL(level, ...)                            \
  do {                                                      \
    if (Log::IsEnabled(level)) {                            \
      Log::WriteAt(level, __FILE__, __LINE__, __VA_ARGS__); \
    }                                                       \
  } while (false)
#define LOG_TRACE(...) LOG_AT_LEVEL(Log::ELogLevel::Trace, __VA_ARGS__)
#define LOG_DEBUG(...) LOG_AT_LEVEL(Log::ELogLevel::Debug, __VA_ARGS__)
#define LOG_INFO(...) LOG_AT_LEVEL(Log::ELogLevel::Info, __VA_ARGS__)
#define LOG_WARNING(...) LOG_AT_LEVEL(Log::ELogLevel::Warning, __VA_ARGS__)
#define LOG_ERROR(...) LOG_AT_LEVEL(Log::ELogLevel::Error, __VA_ARGS__)
