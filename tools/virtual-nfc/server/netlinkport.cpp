#include "tools/virtual-nfc/server/netlinkport.h"

#include <linux/sockios.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace virtualnfc {

constexpr int kSendFlags = MSG_DONTWAIT | MSG_NOSIGNAL;

int NetlinkPort::Open(std::uint32_t processId) {
  mProcessId = processId;
  int ends[2] = {-1, -1};
  mLosses.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!mLosses || ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    const int error = errno;
    Reply(error);
    return error;
  }
  mData.Reset(ends[0]);
  return wire::SendOpened(mControl.Get(), UniqueFd(ends[1]), mLosses) ? 0 : errno;
}

void NetlinkPort::Reply(int error) const {
  const wire::Reply reply{error, port};
  (void)::send(mControl.Get(), &reply, sizeof(reply), kSendFlags);
}

void NetlinkPort::ReplyText(std::string_view text) const {
  (void)::send(mControl.Get(), text.data(), std::min(text.size(), wire::kMaxMessage), kSendFlags);
}

void NetlinkPort::Deliver(std::uint32_t sender, std::uint32_t senderGroups, const Bytes& datagram) {
  if (!mData || (mCongested && !IsDrained())) {
    return;
  }
  mCongested = false;
  wire::DatagramHeader header{sender, senderGroups};
  iovec parts[2] = {{&header, sizeof(header)}, {const_cast<std::uint8_t*>(datagram.data()), datagram.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  if (::sendmsg(mData.Get(), &message, kSendFlags) < 0 && (errno == EAGAIN || errno == EMSGSIZE)) {
    mCongested = true;
    MarkOverrun();
  }
}

void NetlinkPort::MarkOverrun() const {
  if (!mData) {
    return;
  }
  (void)::eventfd_write(mLosses.Get(), 1);
  // Unread data wakes the reader as well.
  if (IsDrained()) {
    (void)::send(mData.Get(), "", 1, kSendFlags);
  }
}

void NetlinkPort::SetReceiveBuffer(std::uint32_t bytes) const {
  // Unread datagrams count against the sender's buffer, so its size acts as the receive buffer.
  const int size = static_cast<int>(bytes);
  (void)::setsockopt(mData.Get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
}

bool NetlinkPort::IsDrained() const {
  int unread = 0;
  return ::ioctl(mData.Get(), SIOCOUTQ, &unread) == 0 && unread == 0;
}

}  // namespace virtualnfc
