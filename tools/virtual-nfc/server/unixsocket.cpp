#include "tools/virtual-nfc/server/unixsocket.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <stdexcept>
#include <system_error>

namespace virtualnfc {

namespace {

constexpr int kBacklog = 128;

std::string ErrorText(int error) {
  return std::generic_category().message(error);
}

/// A socket file that refuses connections was left by a server that died.
bool RemoveStale(const std::string& path, int type) {
  struct stat info {};
  if (path.front() == '@' || ::lstat(path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) {
    return false;
  }
  const UniqueFd probe = ConnectUnix(path, type);
  return !probe && errno == ECONNREFUSED && ::unlink(path.c_str()) == 0;
}

}  // namespace

UnixListener::UnixListener(std::string address, int type) : mAddress(std::move(address)) {
  sockaddr_un name{};
  const socklen_t length = FillUnixAddress(mAddress, name);
  if (length == 0) {
    throw std::runtime_error(
        fmt::format("the socket address '{}' is empty or too long (at most {} characters)", mAddress,
                    sizeof(name.sun_path) - 1));
  }
  mFd.Reset(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!mFd) {
    throw std::runtime_error(fmt::format("cannot make a socket: {}", ErrorText(errno)));
  }
  const auto bindHere = [&] {
    return ::bind(mFd.Get(), reinterpret_cast<const sockaddr*>(&name), length) == 0;
  };
  int error = bindHere() ? 0 : errno;
  if (error == EADDRINUSE && RemoveStale(mAddress, type)) {
    error = bindHere() ? 0 : errno;
  }
  if (error == 0 && ::listen(mFd.Get(), kBacklog) != 0) {
    error = errno;
  }
  if (error != 0) {
    const std::string reason =
        error == EADDRINUSE ? "another server listens there, or it is not a socket" : ErrorText(error);
    throw std::runtime_error(fmt::format("cannot listen on {}: {}", mAddress, reason));
  }
}

UnixListener::~UnixListener() {
  if (mFd && mAddress.front() != '@') {
    ::unlink(mAddress.c_str());
  }
}

UniqueFd UnixListener::Accept() const {
  return UniqueFd(::accept4(mFd.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

}  // namespace virtualnfc
