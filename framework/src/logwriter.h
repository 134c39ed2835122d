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

/// Bound of one log's queue, in bytes: some ten thousand lines, many times what the daemon logs at level
/// trace while its machine stalls for seconds. The two queues share their lines.
constexpr std::size_t kLogBacklog = std::size_t{2} * 1024 * 1024;

/// Writes the lines of one log in order, on its own thread.
///
/// Each log has its own thread because each can block for an unbounded time: a pipe or a terminal that nobody
/// reads, a system log that hangs. So a stuck log loses only its own lines. Checking before each write
/// whether it would block does not help: others may write to the same pipe, and a line may be longer than the
/// free space. spdlog's asynchronous logger does not fit: its queue is bounded in lines and allocated at the
/// start, its thread wakes up every ten seconds, and its flush has no timeout.
///
/// At most kLogBacklog bytes are queued. Beyond that the oldest lines are dropped, and a warning in their
/// place says how many.
///
/// Threads: any; only Flush waits. The writing thread blocks every signal, so that a console without a reader
/// gives a write error instead of a SIGPIPE.
class CLogWriter {
 public:
  /// Writes one line; may block. Returns false or throws when the log did not take it.
  using Write = std::function<bool(const LogLine&)>;

  /// The first line waits `gather` for others, so that one wake-up writes them all; a crash loses the waiting
  /// lines. Throws std::system_error if the thread cannot be started.
  CLogWriter(std::string threadName, Write write,
             std::chrono::milliseconds gather = std::chrono::milliseconds(0));
  ~CLogWriter();  ///< drops the queue; waits for the line being written
  CLogWriter(const CLogWriter&) = delete;
  CLogWriter& operator=(const CLogWriter&) = delete;

  void Push(std::shared_ptr<const LogLine> line);  ///< throws std::bad_alloc

  /// Waits until every earlier line has been written or dropped. Returns false at the deadline.
  bool Flush(std::chrono::steady_clock::time_point deadline);

 private:
  void Run(const std::string& threadName);
  void WriteAfterGap(std::size_t& dropped, const LogLine& line) const;

  const Write mWrite;
  const std::chrono::milliseconds mGather;
  std::mutex mMutex;  // guards the rest except the thread
  std::condition_variable mWake;
  std::condition_variable mProgress;
  std::deque<std::shared_ptr<const LogLine>> mLines;
  std::size_t mBytes = 0;     // of mLines
  std::size_t mDropped = 0;   // lines not reported yet
  std::uint64_t mPushed = 0;  // the number of the last line in mLines
  std::uint64_t mInHand = 0;  // the number of the line being written, 0 while there is none
  bool mIsFlushing = false;   // somebody waits in Flush
  bool mStopping = false;
  std::thread mThread;
};
