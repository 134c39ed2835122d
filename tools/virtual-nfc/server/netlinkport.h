#pragma once

// The server's side of one netlink socket of a program.

#include <sys/types.h>

#include <cstdint>
#include <set>

#include "tools/virtual-nfc/kernel/genlmessage.h"
#include "tools/virtual-nfc/server/uniquefd.h"
#include "tools/virtual-nfc/server/wire.h"

namespace virtualnfc {

/// Not thread-safe; the server locks. Nothing here blocks.
class NetlinkPort {
 public:
  explicit NetlinkPort(UniqueFd control);
  ~NetlinkPort();
  NetlinkPort(const NetlinkPort&) = delete;
  NetlinkPort& operator=(const NetlinkPort&) = delete;

  int ControlFd() const { return mControl.Get(); }
  /// The process that made the socket.
  pid_t ProcessId() const { return mProcessId; }

  /// Makes the data socket and the shared page and hands the program its ends, with the reply to Open.
  /// @returns 0 or an errno, which has then been replied
  int Open();
  bool IsOpen() const { return static_cast<bool>(mData); }

  void Reply(int error) const;
  /// Hands one datagram to the program, or takes note that it did not fit into the receive buffer.
  /// @returns false when it did not fit
  bool Deliver(std::uint32_t sender, std::uint32_t groups, const Bytes& datagram);
  /// The program's next receive call fails with ENOBUFS.
  void MarkOverrun();
  /// Whatever the program does with the socket from now on fails. The connection can go then.
  void Close();
  void SetReceiveBuffer(std::uint32_t bytes) const;

  /// 0 until bound.
  std::uint32_t port = 0;
  std::set<std::uint32_t> groups;

 private:
  bool IsDrained() const;
  void WakeReader() const;

  const UniqueFd mControl;
  pid_t mProcessId = 0;
  UniqueFd mData;
  wire::SharedPage* mPage = nullptr;
  /// Since the receive buffer was full nothing more is put into it until it has been read empty.
  bool mCongested = false;
};

}  // namespace virtualnfc
