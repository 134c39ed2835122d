#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

/// Follows a log file. The file need not exist yet, and may be truncated or replaced. One thread.
class LogTail {
 public:
  explicit LogTail(std::string file) : mFile(std::move(file)) {}

  /// Returns the complete lines since the last call, without colours and control characters. If there are
  /// many, returns only the last ones. Does not block.
  std::vector<std::string> Read();

 private:
  std::string mFile;
  ino_t mInode = 0;
  std::uint64_t mPosition = 0;
  std::string mPart;  ///< the last line while it is incomplete
};
