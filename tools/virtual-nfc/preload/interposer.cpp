#include "tools/virtual-nfc/preload/interposer.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "tools/virtual-nfc/preload/netlinksocket.h"
#include "tools/virtual-nfc/preload/realcalls.h"
#include "tools/virtual-nfc/server/uniquefd.h"
#include "tools/virtual-nfc/server/wire.h"

namespace virtualnfc {

namespace {

/// The descriptors of our netlink sockets. Checking any other descriptor costs one load and takes no lock.
class SocketTable {
 public:
  bool Add(int fd, std::shared_ptr<NetlinkSocket> socket) {
    if (fd < 0 || static_cast<std::size_t>(fd) >= mIsOurs.size()) {
      return false;
    }
    const std::lock_guard lock(mMutex);
    mSockets[fd] = std::move(socket);
    mIsOurs[static_cast<std::size_t>(fd)] = true;
    return true;
  }

  std::shared_ptr<NetlinkSocket> Find(int fd) {
    if (!MayBeOurs(fd)) {
      return nullptr;
    }
    const std::lock_guard lock(mMutex);
    const auto found = mSockets.find(fd);
    return found == mSockets.end() ? nullptr : found->second;
  }

  std::shared_ptr<NetlinkSocket> Take(int fd) {
    if (!MayBeOurs(fd)) {
      return nullptr;
    }
    const std::lock_guard lock(mMutex);
    const auto node = mSockets.extract(fd);
    mIsOurs[static_cast<std::size_t>(fd)] = false;
    return node ? node.mapped() : nullptr;
  }

  int Count() {
    const std::lock_guard lock(mMutex);
    return static_cast<int>(mSockets.size());
  }

 private:
  bool MayBeOurs(int fd) const {
    return fd >= 0 && static_cast<std::size_t>(fd) < mIsOurs.size() && mIsOurs[static_cast<std::size_t>(fd)];
  }

  std::array<std::atomic<bool>, 4096> mIsOurs{};
  std::mutex mMutex;
  std::unordered_map<int, std::shared_ptr<NetlinkSocket>> mSockets;
};

/// Never destroyed: descriptors are closed until the very end of the process.
SocketTable& Table() {
  static auto* table = new SocketTable;
  return *table;
}

std::mutex gAddressMutex;
std::string& GivenAddress() {
  static auto* address = new std::string;
  return *address;
}

std::string ServerAddress() {
  const std::lock_guard lock(gAddressMutex);
  const char* fromEnvironment = std::getenv("VIRTUAL_NFC_SOCKET");
  return !GivenAddress().empty() ? GivenAddress() : fromEnvironment != nullptr ? fromEnvironment : "";
}

int MakeSocket(int type) {
  const std::string address = ServerAddress();
  UniqueFd data;
  std::shared_ptr<NetlinkSocket> socket;
  if (!address.empty()) {
    socket = NetlinkSocket::Connect(address, data);
  }
  if (!socket) {
    const std::string reason = address.empty() ? "VIRTUAL_NFC_SOCKET is not set" : std::strerror(errno);
    std::fprintf(stderr, "virtual-nfc: cannot reach the server at '%s': %s\n", address.c_str(),
                 reason.c_str());
    return Fail(EPROTONOSUPPORT);
  }
  if ((type & SOCK_NONBLOCK) != 0) {
    ::fcntl(data.Get(), F_SETFL, ::fcntl(data.Get(), F_GETFL) | O_NONBLOCK);
  }
  if (!Table().Add(data.Get(), std::move(socket))) {
    return Fail(EMFILE);
  }
  return data.Release();
}

ssize_t SendMessage(NetlinkSocket& socket, const msghdr& message) {
  if (message.msg_name != nullptr) {
    sockaddr_nl to{};
    std::memcpy(&to, message.msg_name, std::min<std::size_t>(message.msg_namelen, sizeof(to)));
    if (message.msg_namelen < sizeof(to) || to.nl_family != AF_NETLINK) {
      return Fail(EINVAL);
    }
    if (to.nl_pid != 0) {
      return Fail(ECONNREFUSED);
    }
  }
  std::size_t length = 0;
  for (std::size_t i = 0; i < static_cast<std::size_t>(message.msg_iovlen); ++i) {
    length += message.msg_iov[i].iov_len;
  }
  if (length > wire::kMaxMessage) {
    return Fail(EMSGSIZE);
  }
  if (socket.Ask(wire::Operation::Send, 0, message.msg_iov, static_cast<std::size_t>(message.msg_iovlen)) !=
      0) {
    return -1;
  }
  return static_cast<ssize_t>(length);
}

int Join(NetlinkSocket& socket, const void* value, socklen_t length) {
  std::uint32_t group = 0;
  if (value == nullptr || length < sizeof(group)) {
    return Fail(EINVAL);
  }
  std::memcpy(&group, value, sizeof(group));
  return socket.Ask(wire::Operation::Join, group);
}

}  // namespace

void SetInterposedServer(const char* address) {
  const std::lock_guard lock(gAddressMutex);
  GivenAddress() = address != nullptr ? address : "";
}

int CountInterposedSockets() {
  return Table().Count();
}

}  // namespace virtualnfc

using virtualnfc::Real;
using virtualnfc::Table;
namespace wire = virtualnfc::wire;

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  if (domain == AF_NETLINK && protocol == NETLINK_GENERIC) {
    return virtualnfc::MakeSocket(type);
  }
  return Real().socket(domain, type, protocol);
}

int close(int fd) {
  // The control connection closes first, so that the server sees the whole socket close.
  Table().Take(fd).reset();
  return Real().close(fd);
}

int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
  const auto ours = Table().Find(fd);
  if (!ours) {
    return Real().bind(fd, address, length);
  }
  sockaddr_nl wanted{};
  if (address == nullptr || length < sizeof(wanted) || address->sa_family != AF_NETLINK) {
    return virtualnfc::Fail(EINVAL);
  }
  std::memcpy(&wanted, address, sizeof(wanted));
  // libnl joins a group by its number. It does not use this mask of the first 32 groups, so refuse it.
  return wanted.nl_groups != 0 ? virtualnfc::Fail(EOPNOTSUPP)
                               : ours->Ask(wire::Operation::Bind, wanted.nl_pid);
}

int getsockname(int fd, sockaddr* address, socklen_t* length) noexcept {
  const auto ours = Table().Find(fd);
  if (!ours) {
    return Real().getsockname(fd, address, length);
  }
  virtualnfc::CopyNetlinkAddress(virtualnfc::MakeNetlinkAddress(ours->Port(), 0), address, *length);
  return 0;
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t length) noexcept {
  const auto ours = Table().Find(fd);
  if (ours && level == SOL_NETLINK) {
    if (option == NETLINK_ADD_MEMBERSHIP) {
      return virtualnfc::Join(*ours, value, length);
    }
    if (option == NETLINK_EXT_ACK) {
      // The simulated kernel never explains its errors.
      return 0;
    }
    return virtualnfc::Fail(ENOPROTOOPT);
  }
  if (ours && level == SOL_SOCKET && (option == SO_RCVBUF || option == SO_RCVBUFFORCE) && value != nullptr &&
      length >= sizeof(std::uint32_t)) {
    std::uint32_t size = 0;
    std::memcpy(&size, value, sizeof(size));
    if (ours->Ask(wire::Operation::ReceiveBuffer, size) != 0) {
      return -1;
    }
  }
  return Real().setsockopt(fd, level, option, value, length);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  const auto ours = Table().Find(fd);
  return ours ? virtualnfc::SendMessage(*ours, *message) : Real().sendmsg(fd, message, flags);
}

ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address, socklen_t length) {
  const auto ours = Table().Find(fd);
  if (!ours) {
    return Real().sendto(fd, data, size, flags, address, length);
  }
  iovec part{const_cast<void*>(data), size};
  msghdr message{};
  message.msg_name = const_cast<sockaddr*>(address);
  message.msg_namelen = length;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  return virtualnfc::SendMessage(*ours, message);
}

ssize_t send(int fd, const void* data, size_t size, int flags) {
  return Table().Find(fd) ? sendto(fd, data, size, flags, nullptr, 0) : Real().send(fd, data, size, flags);
}

ssize_t recvmsg(int fd, msghdr* message, int flags) {
  const auto ours = Table().Find(fd);
  return ours ? ours->Receive(fd, *message, flags) : Real().recvmsg(fd, message, flags);
}

ssize_t recvfrom(int fd, void* data, size_t size, int flags, sockaddr* address, socklen_t* length) {
  const auto ours = Table().Find(fd);
  if (!ours) {
    return Real().recvfrom(fd, data, size, flags, address, length);
  }
  iovec part{data, size};
  msghdr message{};
  message.msg_name = address;
  message.msg_namelen = address != nullptr ? *length : 0;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  const ssize_t received = ours->Receive(fd, message, flags);
  if (received >= 0 && address != nullptr) {
    *length = message.msg_namelen;
  }
  return received;
}

ssize_t recv(int fd, void* data, size_t size, int flags) {
  return Table().Find(fd) ? recvfrom(fd, data, size, flags, nullptr, nullptr)
                          : Real().recv(fd, data, size, flags);
}

}  // extern "C"
