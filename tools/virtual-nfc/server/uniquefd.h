#pragma once

#include <unistd.h>

#include <utility>

namespace virtualnfc {

/// Owns a file descriptor.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : mFd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : mFd(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Reset(); }

  int Get() const { return mFd; }
  explicit operator bool() const { return mFd >= 0; }
  int Release() { return std::exchange(mFd, -1); }
  void Reset(int fd = -1) {
    if (mFd >= 0) {
      ::close(mFd);
    }
    mFd = fd;
  }

 private:
  int mFd = -1;
};

}  // namespace virtualnfc
