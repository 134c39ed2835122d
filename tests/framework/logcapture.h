#pragma once

#include <string>
#include <vector>

#include "framework/log.h"

/// Captures what is logged to both logs from its construction on. The first use in the process opens the log.
/// Leaves the level at trace and the console enabled.
class LogCapture {
 public:
  struct Line {
    int level;  ///< system log: syslog's priority; console: Log::ELogLevel
    std::string text;
    bool operator==(const Line&) const = default;
  };

  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Line> System() const;
  std::vector<Line> Console() const;
  std::vector<std::string> Texts(Log::ELogLevel level) const;  ///< the console's lines at this level
  void Clear();
};
