#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "framework/log.h"

/// One line on its way to the logs.
struct LogLine {
  Log::ELogLevel level;
  std::chrono::system_clock::time_point time;  ///< of the statement
  std::string text;
};

/// What may wait for one log, in bytes: some ten thousand lines, many times what the daemon states at level
/// trace while its machine stalls for seconds. Both logs share the lines that wait for both.
constexpr std::size_t kLogBacklog = std::size_t{2} * 1024 * 1024;

/// Writes the lines of one log in the order in which they come, on a thread of its own.
///
/// Each log has its own thread because each can block for as long as somebody else likes: a pipe or a
/// terminal that nobody reads, a system log that hangs. Asking before each write whether it would block is no
/// way out: the answer does not hold where others write to the same pipe, or for a line that is longer than
/// the room. So a log that is stuck costs its own lines and nothing else. spdlog's asynchronous logger is not
/// used: its queue is bounded in lines and takes all of its memory at the start, its thread wakes up every
/// ten seconds, and nobody can wait for it with a time limit.
///
/// At most kLogBacklog bytes wait. Beyond that the oldest lines are dropped. A line at warning stands where
/// lines are missing and says how many.
///
/// Threads: any; only Flush waits. The thread has every signal blocked, so that a console whose reader has
/// gone is an error of the write instead of a SIGPIPE.
class CLogWriter {
 public:
  /// Writes one line, for as long as that takes; false, or an exception, when the log did not take it.
  using Write = std::function<bool(const LogLine&)>;

  CLogWriter(std::string threadName, Write write);  ///< throws std::system_error when there is no thread
  ~CLogWriter();                                    ///< drops what waits; waits for the line being written
  CLogWriter(const CLogWriter&) = delete;
  CLogWriter& operator=(const CLogWriter&) = delete;

  void Push(std::shared_ptr<const LogLine> line);  ///< throws std::bad_alloc

  /// Waits until every line pushed before has been written or dropped; false when that was not so by the
  /// deadline.
  bool Flush(std::chrono::steady_clock::time_point deadline);

 private:
  void Run(const std::string& threadName);
  void WriteAfterGap(std::size_t& dropped, const LogLine& line) const;

  const Write mWrite;
  std::mutex mMutex;  // guards the rest but the thread
  std::condition_variable mWake;
  std::condition_variable mProgress;
  std::deque<std::shared_ptr<const LogLine>> mLines;
  std::size_t mBytes = 0;     // of mLines
  std::size_t mDropped = 0;   // not said yet
  std::uint64_t mPushed = 0;  // the number of the last line in mLines
  std::uint64_t mInHand = 0;  // the number of the line being written, 0 while there is none
  bool mStopping = false;
  std::thread mThread;
};
