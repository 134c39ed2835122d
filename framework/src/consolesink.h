#pragma once

#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>

/// Writes lines to standard error; the level is coloured on a terminal. One thread. A write may block; one
/// that fails loses its line.
///
/// spdlog's own sink writes through the C library's stream. A stuck write would hold the stream's lock, and
/// the end of the process would wait for it.
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
