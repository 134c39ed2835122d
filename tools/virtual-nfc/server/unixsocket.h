#pragma once

// Unix sockets by address: a path, or "@name" for an abstract name, which leaves no file.

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "tools/virtual-nfc/server/uniquefd.h"

namespace virtualnfc {

/// @returns the length for bind and connect; 0 when the text is empty or does not fit
inline socklen_t FillUnixAddress(std::string_view text, sockaddr_un& address) {
  address = {};
  address.sun_family = AF_UNIX;
  if (text.empty() || text.size() >= sizeof(address.sun_path)) {
    return 0;
  }
  std::memcpy(address.sun_path, text.data(), text.size());
  const bool isAbstract = text.front() == '@';
  if (isAbstract) {
    address.sun_path[0] = '\0';
  }
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size() + (isAbstract ? 0 : 1));
}

/// @returns a connected socket, or a closed descriptor with errno
inline UniqueFd ConnectUnix(std::string_view text, int type) {
  sockaddr_un address{};
  const socklen_t length = FillUnixAddress(text, address);
  if (length == 0) {
    errno = ENAMETOOLONG;
    return UniqueFd();
  }
  UniqueFd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  if (fd && ::connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) {
    const int error = errno;
    fd.Reset();
    errno = error;
  }
  return fd;
}

/// A listening unix socket. Its destructor removes the path.
class UnixListener {
 public:
  /// Replaces a socket file that a dead server has left.
  /// @throws std::runtime_error naming the address and the reason, for example that another server listens
  /// there
  UnixListener(std::string address, int type);
  ~UnixListener();
  UnixListener(const UnixListener&) = delete;
  UnixListener& operator=(const UnixListener&) = delete;

  int Fd() const { return mFd.Get(); }
  const std::string& Address() const { return mAddress; }
  /// @returns a connection, or a closed descriptor when none waits
  UniqueFd Accept() const;

 private:
  const std::string mAddress;
  UniqueFd mFd;
};

}  // namespace virtualnfc
