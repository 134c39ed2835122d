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
#include <set>
#include <string>

#include "tools/virtual-nfc/server/uniquefd.h"
#include "tools/virtual-nfc/server/wire.h"

namespace virtualnfc {

sockaddr_nl MakeNetlinkAddress(std::uint32_t port, std::uint32_t groups);

/// Copies as much as there is room for, and says how much there is.
void CopyNetlinkAddress(const sockaddr_nl& address, void* to, socklen_t& length);

/// Any thread may call anything at any time; errors are returned in errno as the socket calls do.
class NetlinkSocket {
 public:
  /// @param data receives the descriptor for the program
  /// @returns null with errno set when the server cannot be reached
  static std::shared_ptr<NetlinkSocket> Connect(const std::string& address, UniqueFd& data);
  /// The server takes this for the close of the socket, unless a child process still has a copy.
  ~NetlinkSocket();
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;

  /// Whether the descriptor is still the one that was made for this socket; a program may have closed it by
  /// other means and got the number for something else.
  bool IsAt(int fd) const;

  /// Asks the server and waits for its reply, for as long as a command waits in the kernel.
  /// @param parts what follows the header
  /// @returns 0, or -1 with errno
  int Ask(wire::Operation operation, std::uint32_t first, std::uint32_t second, const iovec* parts = nullptr,
          std::size_t count = 0);

  /// As recvmsg; waits if the descriptor waits.
  ssize_t Receive(int fd, msghdr& message, int flags);

  std::uint32_t Port() const { return mPort; }
  void SetMembership(std::uint32_t group, bool isMember);
  /// The groups up to 32, one bit for each.
  std::uint32_t GroupMask() const;

 private:
  NetlinkSocket(UniqueFd control, wire::SharedPage* page, ino_t inode, dev_t device);

  bool AwaitReply(wire::Reply& reply, const sigset_t& signals) const;

  const UniqueFd mControl;
  wire::SharedPage* const mPage;
  const ino_t mInode;
  const dev_t mDevice;
  std::atomic<std::uint32_t> mSeenOverruns{0};
  std::atomic<std::uint32_t> mPort{0};
  /// One exchange at a time.
  std::mutex mExchange;
  mutable std::mutex mGroupsMutex;
  std::set<std::uint32_t> mGroups;
};

}  // namespace virtualnfc
