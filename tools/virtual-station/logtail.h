#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

/// Follows a log file that is written, truncated or replaced by others, and need not exist. One thread.
class LogTail {
 public:
  explicit LogTail(std::string file) : mFile(std::move(file)) {}

  /// The whole lines that came since the last call, without colours and control characters; of many the last
  /// ones only. Does not block.
  std::vector<std::string> Read();

 private:
  std::string mFile;
  ino_t mInode = 0;
  std::uint64_t mPosition = 0;
  std::string mPart;  ///< a line's beginning, its rest is still to come
};
