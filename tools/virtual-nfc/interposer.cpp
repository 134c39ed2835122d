#include "interposer.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
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
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "uniquefd.h"
#include "unixsocket.h"
#include "wire.h"

// The C library of GNU declares some of these calls as throwing nothing; others do not.
#ifdef __GLIBC__
#define VIRTUAL_NFC_NOEXCEPT noexcept
#else
#define VIRTUAL_NFC_NOEXCEPT
#endif

namespace virtualnfc {

namespace {

/// The calls of the C library behind ours.
struct RealCalls {
  template <typename Function>
  static void Find(Function*& target, const char* name) {
    target = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
    if (target == nullptr) {
      std::fprintf(stderr, "virtual-nfc: the C library has no %s\n", name);
      std::abort();
    }
  }

  RealCalls() {
    Find(socket, "socket");
    Find(bind, "bind");
    Find(getsockname, "getsockname");
    Find(getpeername, "getpeername");
    Find(setsockopt, "setsockopt");
    Find(getsockopt, "getsockopt");
    Find(sendmsg, "sendmsg");
    Find(sendto, "sendto");
    Find(send, "send");
    Find(recvmsg, "recvmsg");
    Find(recvfrom, "recvfrom");
    Find(recv, "recv");
    Find(close, "close");
  }

  int (*socket)(int, int, int);
  int (*bind)(int, const sockaddr*, socklen_t);
  int (*getsockname)(int, sockaddr*, socklen_t*);
  int (*getpeername)(int, sockaddr*, socklen_t*);
  int (*setsockopt)(int, int, int, const void*, socklen_t);
  int (*getsockopt)(int, int, int, void*, socklen_t*);
  ssize_t (*sendmsg)(int, const msghdr*, int);
  ssize_t (*sendto)(int, const void*, size_t, int, const sockaddr*, socklen_t);
  ssize_t (*send)(int, const void*, size_t, int);
  ssize_t (*recvmsg)(int, msghdr*, int);
  ssize_t (*recvfrom)(int, void*, size_t, int, sockaddr*, socklen_t*);
  ssize_t (*recv)(int, void*, size_t, int);
  int (*close)(int);
};

const RealCalls& Real() {
  static const RealCalls calls;
  return calls;
}

sockaddr_nl MakeAddress(std::uint32_t port, std::uint32_t groups) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_pid = port;
  address.nl_groups = groups;
  return address;
}

/// Copies as much as there is room for, and says how much there is.
void CopyAddress(const sockaddr_nl& address, void* to, socklen_t& length) {
  std::memcpy(to, &address, std::min<std::size_t>(length, sizeof(address)));
  length = sizeof(address);
}

/// No signal reaches the thread while this lives.
class SignalsHeld {
 public:
  SignalsHeld() {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &mBefore);
  }
  ~SignalsHeld() { ::pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;

  const sigset_t& Before() const { return mBefore; }

 private:
  sigset_t mBefore{};
};

/// One netlink socket: what the program's descriptor stands for.
class NetlinkSocket {
 public:
  /// @returns null with errno set when the server cannot be reached
  static std::shared_ptr<NetlinkSocket> Connect(const std::string& address, UniqueFd& data) {
    UniqueFd control = ConnectUnix(address, SOCK_SEQPACKET);
    if (!control) {
      return nullptr;
    }
    const wire::OperationHeader open{wire::Operation::Open, 0, 0};
    int fds[2] = {-1, -1};
    wire::Reply reply{};
    if (Real().send(control.Get(), &open, sizeof(open), MSG_NOSIGNAL) < 0 ||
        !ReceiveOpened(control.Get(), reply, fds)) {
      return nullptr;
    }
    data.Reset(fds[0]);
    const UniqueFd memory(fds[1]);
    void* page =
        ::mmap(nullptr, sizeof(wire::SharedPage), PROT_READ | PROT_WRITE, MAP_SHARED, memory.Get(), 0);
    struct stat info {};
    if (page == MAP_FAILED || ::fstat(data.Get(), &info) != 0) {
      return nullptr;
    }
    return std::shared_ptr<NetlinkSocket>(
        new NetlinkSocket(std::move(control), static_cast<wire::SharedPage*>(page), info));
  }

  ~NetlinkSocket() { ::munmap(mPage, sizeof(wire::SharedPage)); }
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;

  /// Whether the descriptor is still the one that was made for this socket; a program may have closed it by
  /// other means and got the number for something else.
  bool IsAt(int fd) const {
    struct stat info {};
    return ::fstat(fd, &info) == 0 && info.st_ino == mInode && info.st_dev == mDevice;
  }

  /// Asks the server and waits for its reply. @returns 0, or -1 with errno
  int Ask(wire::Operation operation, std::uint32_t first, std::uint32_t second, const iovec* parts = nullptr,
          std::size_t count = 0) {
    const std::lock_guard lock(mMutex);
    wire::OperationHeader header{operation, first, second};
    std::vector<iovec> all{{&header, sizeof(header)}};
    all.insert(all.end(), parts, parts + count);
    msghdr message{};
    message.msg_iov = all.data();
    message.msg_iovlen = all.size();
    wire::Reply reply{};
    bool isAnswered = false;
    {
      // A signal between the sending and the waiting must end the waiting too.
      const SignalsHeld signals;
      isAnswered =
          Real().sendmsg(mControl.Get(), &message, MSG_NOSIGNAL) >= 0 && AwaitReply(reply, signals.Before());
    }
    if (isAnswered) {
      mPort = reply.port;
    }
    errno = isAnswered ? reply.error : ECONNREFUSED;
    return errno == 0 ? 0 : -1;
  }

  std::uint32_t Port() const { return mPort; }

  void SetMembership(std::uint32_t group, bool isMember) {
    const std::lock_guard lock(mMutex);
    isMember ? (void)mGroups.insert(group) : (void)mGroups.erase(group);
  }

  std::uint32_t GroupMask() const {
    const std::lock_guard lock(mMutex);
    std::uint32_t mask = 0;
    for (const std::uint32_t group : mGroups) {
      mask |= group >= 1 && group <= 32 ? std::uint32_t{1} << (group - 1) : 0;
    }
    return mask;
  }

  ssize_t Receive(int fd, msghdr& message, int flags) {
    for (;;) {
      if (const std::uint32_t overruns = mPage->overruns.load();
          mSeenOverruns.exchange(overruns) != overruns) {
        errno = ENOBUFS;
        return -1;
      }
      wire::DatagramHeader header{};
      std::vector<iovec> parts{{&header, sizeof(header)}};
      parts.insert(parts.end(), message.msg_iov, message.msg_iov + message.msg_iovlen);
      msghdr whole{};
      whole.msg_iov = parts.data();
      whole.msg_iovlen = parts.size();
      const ssize_t length = Real().recvmsg(fd, &whole, flags);
      if (length < 0) {
        return -1;
      }
      if (length < static_cast<ssize_t>(sizeof(header))) {
        // Only there to wake us up.
        if ((flags & MSG_PEEK) != 0) {
          (void)Real().recv(fd, nullptr, 0, MSG_DONTWAIT);
        }
        continue;
      }
      if (message.msg_name != nullptr) {
        CopyAddress(MakeAddress(header.sender, header.groups), message.msg_name, message.msg_namelen);
      }
      message.msg_controllen = 0;
      message.msg_flags = whole.msg_flags;
      return length - static_cast<ssize_t>(sizeof(header));
    }
  }

 private:
  NetlinkSocket(UniqueFd control, wire::SharedPage* page, const struct stat& info)
      : mControl(std::move(control)), mPage(page), mInode(info.st_ino), mDevice(info.st_dev) {}

  static bool ReceiveOpened(int control, wire::Reply& reply, int (&fds)[2]) {
    iovec part{&reply, sizeof(reply)};
    alignas(cmsghdr) char room[CMSG_SPACE(sizeof(fds))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = room;
    message.msg_controllen = sizeof(room);
    ssize_t length = 0;
    do {
      length = Real().recvmsg(control, &message, MSG_CMSG_CLOEXEC);
    } while (length < 0 && errno == EINTR);
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (length != sizeof(reply) || reply.error != 0 || header == nullptr || header->cmsg_type != SCM_RIGHTS ||
        header->cmsg_len != CMSG_LEN(sizeof(fds))) {
      errno = length == sizeof(reply) && reply.error != 0 ? reply.error : ECONNRESET;
      return false;
    }
    std::memcpy(fds, CMSG_DATA(header), sizeof(fds));
    return true;
  }

  /// Waits as a command waits in the kernel: without a limit, and told of each signal.
  bool AwaitReply(wire::Reply& reply, const sigset_t& signals) {
    for (;;) {
      pollfd waiting{mControl.Get(), POLLIN, 0};
      if (::ppoll(&waiting, 1, nullptr, &signals) < 0) {
        if (errno != EINTR) {
          return false;
        }
        const wire::OperationHeader interrupt{wire::Operation::Interrupt, 0, 0};
        (void)Real().send(mControl.Get(), &interrupt, sizeof(interrupt), MSG_NOSIGNAL);
        continue;
      }
      const ssize_t length = Real().recv(mControl.Get(), &reply, sizeof(reply), MSG_DONTWAIT);
      if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
        continue;
      }
      return length == sizeof(reply);
    }
  }

  const UniqueFd mControl;
  wire::SharedPage* const mPage;
  const ino_t mInode;
  const dev_t mDevice;
  std::atomic<std::uint32_t> mSeenOverruns{0};
  std::atomic<std::uint32_t> mPort{0};
  /// One exchange at a time.
  mutable std::mutex mMutex;
  std::set<std::uint32_t> mGroups;
};

/// Which descriptors are netlink sockets of ours. Looking at one that is not costs one load and takes no
/// lock.
class SocketTable {
 public:
  bool Add(int fd, std::shared_ptr<NetlinkSocket> socket) {
    if (fd < 0 || static_cast<std::size_t>(fd) >= mIsOurs.size()) {
      return false;
    }
    std::shared_ptr<NetlinkSocket> stale;
    const std::lock_guard lock(mMutex);
    stale = std::exchange(mSockets[fd], std::move(socket));
    mIsOurs[static_cast<std::size_t>(fd)] = true;
    return true;
  }

  std::shared_ptr<NetlinkSocket> Find(int fd) {
    if (!MayBeOurs(fd)) {
      return nullptr;
    }
    std::shared_ptr<NetlinkSocket> socket;
    {
      const std::lock_guard lock(mMutex);
      const auto found = mSockets.find(fd);
      if (found != mSockets.end()) {
        socket = found->second;
      }
    }
    if (socket && !socket->IsAt(fd)) {
      Take(fd);
      return nullptr;
    }
    return socket;
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
  {
    const std::lock_guard lock(gAddressMutex);
    if (!GivenAddress().empty()) {
      return GivenAddress();
    }
  }
  const char* fromEnvironment = std::getenv("VIRTUAL_NFC_SOCKET");
  return fromEnvironment != nullptr ? fromEnvironment : "";
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
    errno = EPROTONOSUPPORT;
    return -1;
  }
  if ((type & SOCK_NONBLOCK) != 0) {
    ::fcntl(data.Get(), F_SETFL, ::fcntl(data.Get(), F_GETFL) | O_NONBLOCK);
  }
  if (!Table().Add(data.Get(), std::move(socket))) {
    errno = EMFILE;
    return -1;
  }
  return data.Release();
}

ssize_t SendMessage(NetlinkSocket& socket, const msghdr& message) {
  if (message.msg_name != nullptr) {
    sockaddr_nl to{};
    std::memcpy(&to, message.msg_name, std::min<std::size_t>(message.msg_namelen, sizeof(to)));
    if (message.msg_namelen < sizeof(to) || to.nl_family != AF_NETLINK) {
      errno = EINVAL;
      return -1;
    }
    if (to.nl_pid != 0) {
      errno = ECONNREFUSED;
      return -1;
    }
  }
  std::size_t length = 0;
  for (std::size_t i = 0; i < static_cast<std::size_t>(message.msg_iovlen); ++i) {
    length += message.msg_iov[i].iov_len;
  }
  if (length > wire::kMaxMessage) {
    errno = EMSGSIZE;
    return -1;
  }
  if (socket.Ask(wire::Operation::Send, 0, 0, message.msg_iov,
                 static_cast<std::size_t>(message.msg_iovlen)) != 0) {
    return -1;
  }
  return static_cast<ssize_t>(length);
}

int SetMembership(NetlinkSocket& socket, int option, const void* value, socklen_t length) {
  std::uint32_t group = 0;
  if (value == nullptr || length < sizeof(group)) {
    errno = EINVAL;
    return -1;
  }
  std::memcpy(&group, value, sizeof(group));
  const bool joins = option == NETLINK_ADD_MEMBERSHIP;
  if (socket.Ask(joins ? wire::Operation::Join : wire::Operation::Leave, group, 0) != 0) {
    return -1;
  }
  socket.SetMembership(group, joins);
  return 0;
}

int AnswerNumber(int number, void* value, socklen_t* length) {
  if (*length < sizeof(number)) {
    errno = EINVAL;
    return -1;
  }
  std::memcpy(value, &number, sizeof(number));
  *length = sizeof(number);
  return 0;
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

using virtualnfc::NetlinkSocket;
using virtualnfc::Real;
using virtualnfc::Table;
namespace wire = virtualnfc::wire;

extern "C" {

int socket(int domain, int type, int protocol) VIRTUAL_NFC_NOEXCEPT {
  if (domain == AF_NETLINK && protocol == NETLINK_GENERIC) {
    return virtualnfc::MakeSocket(type);
  }
  return Real().socket(domain, type, protocol);
}

int close(int fd) {
  // The control connection closes first, so that the server never sees half a socket.
  Table().Take(fd).reset();
  return Real().close(fd);
}

int bind(int fd, const sockaddr* address, socklen_t length) VIRTUAL_NFC_NOEXCEPT {
  const auto ours = Table().Find(fd);
  if (!ours) {
    return Real().bind(fd, address, length);
  }
  sockaddr_nl wanted{};
  if (address == nullptr || length < sizeof(wanted) || address->sa_family != AF_NETLINK) {
    errno = EINVAL;
    return -1;
  }
  std::memcpy(&wanted, address, sizeof(wanted));
  if (ours->Ask(wire::Operation::Bind, wanted.nl_pid, wanted.nl_groups) != 0) {
    return -1;
  }
  for (std::uint32_t bit = 0; bit < 32; ++bit) {
    if ((wanted.nl_groups & (std::uint32_t{1} << bit)) != 0) {
      ours->SetMembership(bit + 1, true);
    }
  }
  return 0;
}

int getsockname(int fd, sockaddr* address, socklen_t* length) VIRTUAL_NFC_NOEXCEPT {
  const auto ours = Table().Find(fd);
  if (!ours) {
    return Real().getsockname(fd, address, length);
  }
  virtualnfc::CopyAddress(virtualnfc::MakeAddress(ours->Port(), ours->GroupMask()), address, *length);
  return 0;
}

int getpeername(int fd, sockaddr* address, socklen_t* length) VIRTUAL_NFC_NOEXCEPT {
  const auto ours = Table().Find(fd);
  if (!ours) {
    return Real().getpeername(fd, address, length);
  }
  virtualnfc::CopyAddress(virtualnfc::MakeAddress(0, 0), address, *length);
  return 0;
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t length) VIRTUAL_NFC_NOEXCEPT {
  const auto ours = Table().Find(fd);
  if (ours && level == SOL_NETLINK) {
    if (option == NETLINK_ADD_MEMBERSHIP || option == NETLINK_DROP_MEMBERSHIP) {
      return virtualnfc::SetMembership(*ours, option, value, length);
    }
    if (option == NETLINK_EXT_ACK) {
      // Allows the kernel to explain its errors; this one has nothing to add.
      return 0;
    }
    errno = ENOPROTOOPT;
    return -1;
  }
  if (ours && level == SOL_SOCKET && (option == SO_RCVBUF || option == SO_RCVBUFFORCE) && value != nullptr &&
      length >= sizeof(std::uint32_t)) {
    std::uint32_t size = 0;
    std::memcpy(&size, value, sizeof(size));
    if (ours->Ask(wire::Operation::ReceiveBuffer, size, 0) != 0) {
      return -1;
    }
  }
  return Real().setsockopt(fd, level, option, value, length);
}

int getsockopt(int fd, int level, int option, void* value, socklen_t* length) VIRTUAL_NFC_NOEXCEPT {
  const auto ours = Table().Find(fd);
  if (ours && level == SOL_NETLINK) {
    errno = ENOPROTOOPT;
    return -1;
  }
  if (ours && level == SOL_SOCKET) {
    switch (option) {
      case SO_DOMAIN:
        return virtualnfc::AnswerNumber(AF_NETLINK, value, length);
      case SO_PROTOCOL:
        return virtualnfc::AnswerNumber(NETLINK_GENERIC, value, length);
      case SO_TYPE:
        return virtualnfc::AnswerNumber(SOCK_RAW, value, length);
      default:
        break;
    }
  }
  return Real().getsockopt(fd, level, option, value, length);
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
