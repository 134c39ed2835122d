#include "framework/logcapture.h"

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <stdexcept>

namespace {

std::mutex gMutex;
std::vector<LogCapture::Line> gSystem;
std::vector<LogCapture::Line> gConsole;

void TakeSystemLine(int priority, const char* format, va_list args) {
  char text[16384];
  // Callers have started it. NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
  vsnprintf(text, sizeof text, format, args);
  const std::lock_guard lock(gMutex);
  gSystem.push_back({priority, text});
}

/// Waits for lines that are still queued.
void AwaitLines() {
  if (!Log::Flush(std::chrono::seconds(120))) {
    throw std::runtime_error("the lines do not reach the logs");
  }
}

class ConsoleSink : public spdlog::sinks::base_sink<std::mutex> {
 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    const std::lock_guard lock(gMutex);
    gConsole.push_back(
        {static_cast<int>(message.level), std::string(message.payload.data(), message.payload.size())});
  }
  void flush_() override {}
};

}  // namespace

// These definitions hide the C library's, so the system log's lines arrive here.
extern "C" void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  TakeSystemLine(priority, format, args);
  va_end(args);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  TakeSystemLine(priority, format, args);
  va_end(args);
}

LogCapture::LogCapture() {
  static std::once_flag opened;
  std::call_once(opened, [] {
    Log::Init("test", Log::ELogLevel::Trace);
    spdlog::get("console")->sinks().push_back(std::make_shared<ConsoleSink>());
  });
  Log::SetLogLevel(Log::ELogLevel::Trace);
  Log::EnableConsoleLogging(true);
  Clear();
}

LogCapture::~LogCapture() {
  Log::EnableConsoleLogging(true);
}

std::vector<LogCapture::Line> LogCapture::System() const {
  AwaitLines();
  const std::lock_guard lock(gMutex);
  return gSystem;
}

std::vector<LogCapture::Line> LogCapture::Console() const {
  AwaitLines();
  const std::lock_guard lock(gMutex);
  return gConsole;
}

std::vector<std::string> LogCapture::Texts(Log::ELogLevel level) const {
  std::vector<std::string> texts;
  for (const Line& line : Console()) {
    if (line.level == static_cast<int>(level)) {
      texts.push_back(line.text);
    }
  }
  return texts;
}

void LogCapture::Clear() {
  AwaitLines();
  const std::lock_guard lock(gMutex);
  gSystem.clear();
  gConsole.clear();
}
