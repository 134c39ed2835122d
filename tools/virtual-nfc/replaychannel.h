#pragma once

// The netlink sockets of a replay: to a simulated kernel, or to the machine's own.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "genlmessage.h"

namespace virtualnfc {

struct Datagram {
  std::uint32_t sender = 0;
  std::uint32_t groups = 0;
  Bytes bytes;
};

/// One netlink socket, closed at destruction. Any thread. The operations return 0 or an errno.
class NetlinkChannel {
 public:
  virtual ~NetlinkChannel() = default;
  virtual int Bind() = 0;
  virtual int Join(std::uint32_t group) = 0;
  virtual int Leave(std::uint32_t group) = 0;
  /// Waits as long as the kernel carries the command out, or until a signal reaches the thread.
  virtual int Send(const Bytes& datagram) = 0;
  /// What has been received; none when there is nothing. Does not wait.
  virtual std::optional<Datagram> Receive() = 0;
  /// Becomes readable when there is something.
  virtual int Fd() const = 0;
  virtual std::uint32_t Port() const = 0;
};

/// Both: @returns null with errno when there is no such kernel
std::shared_ptr<NetlinkChannel> OpenSimulated(const std::string& address);
std::shared_ptr<NetlinkChannel> OpenOwnKernel();

}  // namespace virtualnfc
