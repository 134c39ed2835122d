#include "logwriter.h"

#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>

#include <exception>
#include <utility>

#include "framework/thread.h"

namespace {

/// Approximate memory for a queued line, including the allocator's and the queue's overhead.
std::size_t SizeOf(const LogLine& line) {
  constexpr std::size_t kBookkeeping = 64;
  return sizeof(LogLine) + line.text.capacity() + kBookkeeping;
}

}  // namespace

CLogWriter::CLogWriter(std::string threadName, Write write, std::chrono::milliseconds gather)
    : mWrite(std::move(write)),
      mGather(gather),
      mThread([this, name = std::move(threadName)] { Run(name); }) {}

CLogWriter::~CLogWriter() {
  {
    const std::lock_guard lock(mMutex);
    mStopping = true;
  }
  mWake.notify_one();
  mThread.join();
}

void CLogWriter::Push(std::shared_ptr<const LogLine> line) {
  bool isFirst = false;
  {
    const std::lock_guard lock(mMutex);
    const std::size_t size = SizeOf(*line);
    isFirst = mLines.empty();
    mLines.push_back(std::move(line));
    mBytes += size;
    ++mPushed;
    while (mBytes > kLogBacklog) {
      mBytes -= SizeOf(*mLines.front());
      mLines.pop_front();
      ++mDropped;
    }
  }
  if (isFirst) {
    mWake.notify_one();
  }
}

bool CLogWriter::Flush(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(mMutex);
  mIsFlushing = true;
  mWake.notify_one();
  return mProgress.wait_until(lock, deadline, [this, last = mPushed] {
    const std::uint64_t taken = mPushed - mLines.size();
    return taken >= last && (mInHand == 0 || mInHand > last);
  });
}

void CLogWriter::Run(const std::string& threadName) {
  SetThreadName(threadName.c_str());
  sigset_t signals;
  sigfillset(&signals);
  pthread_sigmask(SIG_SETMASK, &signals, nullptr);

  std::unique_lock lock(mMutex);
  for (;;) {
    if (mLines.empty()) {
      mIsFlushing = false;
      mWake.wait(lock, [this] { return mStopping || !mLines.empty(); });
      if (mGather.count() > 0) {
        mWake.wait_for(lock, mGather, [this] { return mStopping || mIsFlushing; });
      }
    }
    if (mStopping) {
      return;
    }
    auto line = std::move(mLines.front());
    mLines.pop_front();
    mBytes -= SizeOf(*line);
    mInHand = mPushed - mLines.size();
    std::size_t dropped = std::exchange(mDropped, 0);
    lock.unlock();
    WriteAfterGap(dropped, *line);
    line.reset();
    lock.lock();
    mDropped += dropped;
    mInHand = 0;
    mProgress.notify_all();
  }
}

/// Writes the report of dropped lines, if any, and the line. `dropped` keeps the number that is still to be
/// reported. The report has the time of the line after the gap, so that times do not jump back.
void CLogWriter::WriteAfterGap(std::size_t& dropped, const LogLine& line) const {
  try {
    bool isTaken = true;
    if (dropped > 0 && Log::IsEnabled(Log::ELogLevel::Warning)) {
      const auto text = fmt::format("{} log lines were dropped: this log did not take them.", dropped);
      isTaken = mWrite({Log::ELogLevel::Warning, line.time, text});
      dropped = isTaken ? 0 : dropped;
    }
    dropped += isTaken && mWrite(line) ? 0 : 1;
  } catch (const std::exception&) {  // out of memory
    ++dropped;
  }
}
