#pragma once

// The program's side of one netlink socket: what its descriptor stands for.

#include <linux/netlink.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "tools/virtual-nfc/server/uniquefd.h"
#include "tools/virtual-nfc/server/wire.h"

namespace virtualnfc {

/// Sets errno. @returns -1
int Fail(int error);

sockaddr_nl MakeNetlinkAddress(std::uint32_t port, std::uint32_t groups);

/// Copies as much as fits, and sets the length to the whole size.
void CopyNetlinkAddress(const sockaddr_nl& address, void* to, socklen_t& length);

/// Any thread may call anything at any time; errors are returned in errno as the socket calls do.
class NetlinkSocket {
 public:
  /// @param data receives the descriptor for the program
  /// @returns null with errno set when the server cannot be reached
  static std::shared_ptr<NetlinkSocket> Connect(const std::string& address, UniqueFd& data);

  /// Asks the server and waits for its reply, without a timeout, as a command in the kernel does.
  /// @param parts what follows the header
  /// @returns 0, or -1 with errno
  int Ask(wire::Operation operation, std::uint32_t argument, const iovec* parts = nullptr,
          std::size_t count = 0);

  /// As recvmsg; blocks if the descriptor is blocking.
  ssize_t Receive(int fd, msghdr& message, int flags);

  std::uint32_t Port() const { return mPort; }

 private:
  NetlinkSocket(UniqueFd control, UniqueFd losses)
      : mControl(std::move(control)), mLosses(std::move(losses)) {}

  bool AwaitReply(wire::Reply& reply, const sigset_t& signals) const;

  const UniqueFd mControl;
  const UniqueFd mLosses;
  std::atomic<std::uint32_t> mPort{0};
  /// One exchange at a time.
  std::mutex mExchange;
};

}  // namespace virtualnfc
