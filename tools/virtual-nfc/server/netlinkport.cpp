#include "tools/virtual-nfc/server/netlinkport.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace virtualnfc {

namespace {

constexpr int kSendFlags = MSG_DONTWAIT | MSG_NOSIGNAL;

}  // namespace

NetlinkPort::NetlinkPort(UniqueFd control) : mControl(std::move(control)) {
  ucred peer{};
  socklen_t length = sizeof(peer);
  if (::getsockopt(mControl.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0) {
    mProcessId = peer.pid;
  }
}

NetlinkPort::~NetlinkPort() {
  if (mPage != nullptr) {
    ::munmap(mPage, sizeof(wire::SharedPage));
  }
}

int NetlinkPort::Open() {
  int ends[2] = {-1, -1};
  if (mData || ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) != 0) {
    const int error = mData ? EALREADY : errno;
    Reply(error);
    return error;
  }
  UniqueFd ours(ends[0]);
  const UniqueFd theirs(ends[1]);
  const UniqueFd memory(::memfd_create("virtual-nfc", MFD_CLOEXEC));
  void* page = MAP_FAILED;
  if (memory && ::ftruncate(memory.Get(), sizeof(wire::SharedPage)) == 0) {
    page = ::mmap(nullptr, sizeof(wire::SharedPage), PROT_READ | PROT_WRITE, MAP_SHARED, memory.Get(), 0);
  }
  if (page == MAP_FAILED) {
    const int error = errno;
    Reply(error);
    return error;
  }
  mPage = new (page) wire::SharedPage{};
  mData = std::move(ours);

  const wire::Reply reply{0, 0};
  iovec data{const_cast<wire::Reply*>(&reply), sizeof(reply)};
  const int handedOver[2] = {theirs.Get(), memory.Get()};
  alignas(cmsghdr) char room[CMSG_SPACE(sizeof(handedOver))] = {};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = room;
  message.msg_controllen = sizeof(room);
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(handedOver));
  std::memcpy(CMSG_DATA(header), handedOver, sizeof(handedOver));
  return ::sendmsg(mControl.Get(), &message, kSendFlags) < 0 ? errno : 0;
}

void NetlinkPort::Reply(int error) const {
  const wire::Reply reply{error, port};
  // A program that is gone needs no reply; its end shows as the end of the connection.
  (void)::send(mControl.Get(), &reply, sizeof(reply), kSendFlags);
}

bool NetlinkPort::Deliver(std::uint32_t sender, std::uint32_t senderGroups, const Bytes& datagram) {
  if (!mData) {
    return false;
  }
  if (mCongested) {
    if (!IsDrained()) {
      return false;
    }
    mCongested = false;
  }
  wire::DatagramHeader header{sender, senderGroups};
  iovec parts[2] = {{&header, sizeof(header)}, {const_cast<std::uint8_t*>(datagram.data()), datagram.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  if (::sendmsg(mData.Get(), &message, kSendFlags) < 0 && (errno == EAGAIN || errno == EMSGSIZE)) {
    mCongested = true;
    MarkOverrun();
    return false;
  }
  return true;
}

void NetlinkPort::MarkOverrun() {
  if (!mData) {
    return;
  }
  mPage->overruns.fetch_add(1);
  WakeReader();
}

void NetlinkPort::Close() {
  if (mData) {
    mPage->closed = 1;
    WakeReader();
  }
}

/// Data that is there wakes it as well.
void NetlinkPort::WakeReader() const {
  if (IsDrained()) {
    (void)::send(mData.Get(), "", 0, kSendFlags);
  }
}

void NetlinkPort::SetReceiveBuffer(std::uint32_t bytes) const {
  // What has been sent and not been read counts against the sender's buffer, so this is the receiver's.
  const int size = static_cast<int>(bytes);
  (void)::setsockopt(mData.Get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
}

bool NetlinkPort::IsDrained() const {
  int unread = 0;
  return ::ioctl(mData.Get(), SIOCOUTQ, &unread) == 0 && unread == 0;
}

}  // namespace virtualnfc
