#include "tools/virtual-nfc/preload/netlinksocket.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "tools/virtual-nfc/preload/realcalls.h"
#include "tools/virtual-nfc/server/unixsocket.h"

namespace virtualnfc {

int Fail(int error) {
  errno = error;
  return -1;
}

sockaddr_nl MakeNetlinkAddress(std::uint32_t port, std::uint32_t groups) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_pid = port;
  address.nl_groups = groups;
  return address;
}

void CopyNetlinkAddress(const sockaddr_nl& address, void* to, socklen_t& length) {
  std::memcpy(to, &address, std::min<std::size_t>(length, sizeof(address)));
  length = sizeof(address);
}

std::shared_ptr<NetlinkSocket> NetlinkSocket::Connect(const std::string& address, UniqueFd& data) {
  UniqueFd control = ConnectUnix(address, SOCK_SEQPACKET);
  UniqueFd losses;
  const wire::OperationHeader open{wire::Operation::Open, static_cast<std::uint32_t>(::getpid())};
  if (!control || Real().send(control.Get(), &open, sizeof(open), MSG_NOSIGNAL) < 0 ||
      !wire::ReceiveOpened(control.Get(), data, losses)) {
    return nullptr;
  }
  return std::shared_ptr<NetlinkSocket>(new NetlinkSocket(std::move(control), std::move(losses)));
}

int NetlinkSocket::Ask(wire::Operation operation, std::uint32_t argument, const iovec* parts,
                       std::size_t count) {
  const std::lock_guard lock(mExchange);
  wire::OperationHeader header{operation, argument};
  std::vector<iovec> all{{&header, sizeof(header)}};
  all.insert(all.end(), parts, parts + count);
  msghdr message{};
  message.msg_iov = all.data();
  message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(all.size());
  wire::Reply reply{};
  // A signal that comes between sending and waiting must end the wait as well, so it is held until then.
  sigset_t everySignal;
  sigset_t before;
  sigfillset(&everySignal);
  ::pthread_sigmask(SIG_SETMASK, &everySignal, &before);
  const bool isAnswered =
      Real().sendmsg(mControl.Get(), &message, MSG_NOSIGNAL) >= 0 && AwaitReply(reply, before);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (isAnswered) {
    mPort = reply.port;
  }
  const int error = isAnswered ? reply.error : EBADF;
  return error == 0 ? 0 : Fail(error);
}

/// Waits as a command waits in the kernel: without a timeout. The server learns of each signal.
bool NetlinkSocket::AwaitReply(wire::Reply& reply, const sigset_t& signals) const {
  for (;;) {
    pollfd waiting{mControl.Get(), POLLIN, 0};
    if (::ppoll(&waiting, 1, nullptr, &signals) < 0) {
      if (errno != EINTR) {
        return false;
      }
      const wire::OperationHeader interrupt{wire::Operation::Interrupt, 0};
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

ssize_t NetlinkSocket::Receive(int fd, msghdr& message, int flags) {
  for (;;) {
    eventfd_t losses = 0;
    if (::eventfd_read(mLosses.Get(), &losses) == 0) {
      return Fail(ENOBUFS);
    }
    wire::DatagramHeader header{};
    std::vector<iovec> parts{{&header, sizeof(header)}};
    parts.insert(parts.end(), message.msg_iov, message.msg_iov + message.msg_iovlen);
    msghdr whole{};
    whole.msg_iov = parts.data();
    whole.msg_iovlen = static_cast<decltype(whole.msg_iovlen)>(parts.size());
    const ssize_t length = Real().recvmsg(fd, &whole, flags);
    if (length < 0) {
      return -1;
    }
    if (length == 0) {
      return Fail(EBADF);
    }
    if (length < static_cast<ssize_t>(sizeof(header))) {
      // It only wakes the reader.
      if ((flags & MSG_PEEK) != 0) {
        (void)Real().recv(fd, nullptr, 0, MSG_DONTWAIT);
      }
      continue;
    }
    if (message.msg_name != nullptr) {
      CopyNetlinkAddress(MakeNetlinkAddress(header.sender, header.groups), message.msg_name,
                         message.msg_namelen);
    }
    message.msg_controllen = 0;
    message.msg_flags = whole.msg_flags;
    return length - static_cast<ssize_t>(sizeof(header));
  }
}

}  // namespace virtualnfc
