#include "consolesink.h"

#include <poll.h>
#include <spdlog/details/os.h>
#include <spdlog/pattern_formatter.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string_view>

namespace {

constexpr const char* kPattern = "%Y-%m-%d %H:%M:%S.%e %^%-8l%$ %v";
constexpr std::string_view kPlain = "\033[m";

/// By level, from trace to critical.
constexpr std::array<std::string_view, 6> kColours{"\033[37m",          // white
                                                   "\033[36m",          // cyan
                                                   "\033[32m",          // green
                                                   "\033[33m\033[1m",   // yellow, bold
                                                   "\033[31m\033[1m",   // red, bold
                                                   "\033[1m\033[41m"};  // bold on red

bool WriteAll(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<size_t>(written));
    } else if (errno == EAGAIN) {  // another process that shares the console made it non-blocking
      pollfd console{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
      poll(&console, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace

CConsoleSink::CConsoleSink()
    : mColours(spdlog::details::os::in_terminal(stderr) && spdlog::details::os::is_color_terminal()) {
  set_pattern(kPattern);
}

void CConsoleSink::sink_it_(const spdlog::details::log_msg& message) {
  mTookLast = false;  // unless the rest succeeds
  message.color_range_start = 0;
  message.color_range_end = 0;
  spdlog::memory_buf_t line;
  formatter_->format(message, line);
  if (mColours && message.color_range_end > message.color_range_start) {
    const std::string_view colour = kColours.at(message.level);
    spdlog::memory_buf_t coloured;
    coloured.append(line.data(), line.data() + message.color_range_start);
    coloured.append(colour.data(), colour.data() + colour.size());
    coloured.append(line.data() + message.color_range_start, line.data() + message.color_range_end);
    coloured.append(kPlain.data(), kPlain.data() + kPlain.size());
    coloured.append(line.data() + message.color_range_end, line.data() + line.size());
    line = std::move(coloured);
  }
  mTookLast = WriteAll({line.data(), line.size()});
}
