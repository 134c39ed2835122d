#pragma once

#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>

/// Writes lines to standard error, on a terminal with the level in colour. One thread.
///
/// Not spdlog's own sink: that one writes through the C library's stream, whose lock a write that is stuck
/// would hold while the process ends. A write may block; one that fails costs its line.
class CConsoleSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 public:
  CConsoleSink();

  /// Whether the console took the last line.
  bool TookLast() const { return mTookLast; }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override {}

 private:
  const bool mColours;
  bool mTookLast = true;
};
