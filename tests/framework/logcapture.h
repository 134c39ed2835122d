#pragma once

#include <string>
#include <vector>

#include "framework/log.h"

/// What is logged from its construction on, to both logs. The log is opened at the first use in the process,
/// and left at level trace with the console enabled.
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
  std::vector<std::string> Texts(Log::ELogLevel level) const;  ///< of the console's lines at this level
  void Clear();
};
