#pragma once

// The server's side of one netlink socket of a program.

#include <cstdint>
#include <string_view>
#include <utility>

#include "tools/virtual-nfc/kernel/genlmessage.h"
#include "tools/virtual-nfc/server/uniquefd.h"
#include "tools/virtual-nfc/server/wire.h"

namespace virtualnfc {

/// Not thread-safe; the server locks. Nothing here blocks. After the end of this object every call of the
/// program on its socket fails.
class NetlinkPort {
 public:
  explicit NetlinkPort(UniqueFd control) : mControl(std::move(control)) {}

  int ControlFd() const { return mControl.Get(); }
  /// The process that made the socket.
  std::uint32_t ProcessId() const { return mProcessId; }

  /// Makes the descriptors that the program gets and replies with them.
  /// @returns 0, or the errno that was replied
  int Open(std::uint32_t processId);
  bool IsOpen() const { return static_cast<bool>(mData); }

  void Reply(int error) const;
  void ReplyText(std::string_view text) const;
  /// Delivers one datagram to the program. If the receive buffer is full, the program's next receive reports
  /// the loss.
  void Deliver(std::uint32_t sender, std::uint32_t groups, const Bytes& datagram);
  /// The program's next receive call fails with ENOBUFS.
  void MarkOverrun() const;
  void SetReceiveBuffer(std::uint32_t bytes) const;

  /// 0 until bound.
  std::uint32_t port = 0;
  /// It has joined the group of events.
  bool listens = false;

 private:
  bool IsDrained() const;

  const UniqueFd mControl;
  std::uint32_t mProcessId = 0;
  UniqueFd mData;
  UniqueFd mLosses;
  /// The receive buffer was full. As in the kernel, it takes nothing more until it has been read empty.
  bool mCongested = false;
};

}  // namespace virtualnfc
