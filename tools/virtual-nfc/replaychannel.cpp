#include "replaychannel.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>

#include "netlinksocket.h"
#include "uniquefd.h"
#include "wire.h"

namespace virtualnfc {

namespace {

/// Reads with a function that works as recvmsg.
template <typename Read>
std::optional<Datagram> ReceiveWith(const Read& read) {
  Datagram datagram;
  datagram.bytes.resize(wire::kMaxMessage);
  sockaddr_nl from{};
  iovec part{datagram.bytes.data(), datagram.bytes.size()};
  msghdr message{};
  message.msg_name = &from;
  message.msg_namelen = sizeof(from);
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  const ssize_t length = read(message);
  if (length < 0) {
    return std::nullopt;
  }
  datagram.bytes.resize(static_cast<std::size_t>(length));
  datagram.sender = from.nl_pid;
  datagram.groups = from.nl_groups;
  return datagram;
}

int ErrorOf(int result) {
  return result == 0 ? 0 : errno;
}

class SimulatedChannel : public NetlinkChannel {
 public:
  SimulatedChannel(std::shared_ptr<NetlinkSocket> socket, UniqueFd data)
      : mSocket(std::move(socket)), mData(std::move(data)) {}

  int Bind() override { return ErrorOf(mSocket->Ask(wire::Operation::Bind, 0, 0)); }
  int Join(std::uint32_t group) override { return ErrorOf(mSocket->Ask(wire::Operation::Join, group, 0)); }
  int Leave(std::uint32_t group) override { return ErrorOf(mSocket->Ask(wire::Operation::Leave, group, 0)); }
  int Send(const Bytes& datagram) override {
    const iovec part{const_cast<std::uint8_t*>(datagram.data()), datagram.size()};
    return ErrorOf(mSocket->Ask(wire::Operation::Send, 0, 0, &part, 1));
  }
  std::optional<Datagram> Receive() override {
    return ReceiveWith(
        [this](msghdr& message) { return mSocket->Receive(mData.Get(), message, MSG_DONTWAIT); });
  }
  int Fd() const override { return mData.Get(); }
  std::uint32_t Port() const override { return mSocket->Port(); }

 private:
  std::shared_ptr<NetlinkSocket> mSocket;
  UniqueFd mData;
};

class OwnKernelChannel : public NetlinkChannel {
 public:
  explicit OwnKernelChannel(UniqueFd fd) : mFd(std::move(fd)) {}

  int Bind() override {
    sockaddr_nl address = MakeNetlinkAddress(0, 0);
    socklen_t length = sizeof(address);
    if (::bind(mFd.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::getsockname(mFd.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      return errno;
    }
    mPort = address.nl_pid;
    return 0;
  }
  int Join(std::uint32_t group) override { return SetMembership(NETLINK_ADD_MEMBERSHIP, group); }
  int Leave(std::uint32_t group) override { return SetMembership(NETLINK_DROP_MEMBERSHIP, group); }
  int Send(const Bytes& datagram) override {
    const sockaddr_nl kernel = MakeNetlinkAddress(0, 0);
    const ssize_t sent = ::sendto(mFd.Get(), datagram.data(), datagram.size(), 0,
                                  reinterpret_cast<const sockaddr*>(&kernel), sizeof(kernel));
    return sent < 0 ? errno : 0;
  }
  std::optional<Datagram> Receive() override {
    return ReceiveWith([this](msghdr& message) { return ::recvmsg(mFd.Get(), &message, MSG_DONTWAIT); });
  }
  int Fd() const override { return mFd.Get(); }
  std::uint32_t Port() const override { return mPort; }

 private:
  int SetMembership(int option, std::uint32_t group) {
    return ErrorOf(::setsockopt(mFd.Get(), SOL_NETLINK, option, &group, sizeof(group)));
  }

  UniqueFd mFd;
  std::atomic<std::uint32_t> mPort{0};
};

}  // namespace

std::shared_ptr<NetlinkChannel> OpenSimulated(const std::string& address) {
  UniqueFd data;
  auto socket = NetlinkSocket::Connect(address, data);
  if (!socket) {
    return nullptr;
  }
  return std::make_shared<SimulatedChannel>(std::move(socket), std::move(data));
}

std::shared_ptr<NetlinkChannel> OpenOwnKernel() {
  UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC));
  return fd ? std::make_shared<OwnKernelChannel>(std::move(fd)) : nullptr;
}

}  // namespace virtualnfc
