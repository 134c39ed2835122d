#pragma once

#include <cstdint>
#include <string_view>

#include "tools/virtual-nfc/kernel/genlmessage.h"

namespace virtualnfc {

enum class SocketChange { Opened, Bound, Joined, Interrupted, Closed };

/// Sees everything between programs and the simulated kernel. The calls come from any thread, one at a time,
/// with the server's lock held: they must return at once and must not call the server.
class NetlinkObserver {
 public:
  virtual ~NetlinkObserver() = default;

  /// @param socket unique per socket; never reused
  /// @param number the port or the group
  /// @param error the result of joining: an errno or 0
  virtual void OnSocket(std::uint64_t socket, SocketChange change, std::uint32_t number, int error) = 0;
  /// One datagram from the program to the kernel.
  virtual void OnSent(std::uint64_t socket, ByteView datagram) = 0;
  /// One datagram from the kernel to the program.
  /// @param isLost the program's receive buffer was full
  virtual void OnDelivered(std::uint64_t socket, std::uint32_t sender, std::uint32_t groups,
                           ByteView datagram, bool isLost) = 0;
  /// Something changed at the reader or the rules.
  /// @param words as in a control line, "tap mifare 04A12B5C"; or "# " and a remark
  virtual void OnReader(std::string_view words) = 0;
};

}  // namespace virtualnfc
