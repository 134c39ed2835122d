#pragma once

// The protocol between the interposer and the server. One SOCK_SEQPACKET control connection stands for one
// netlink socket of the program: when it ends, the server closes the socket. Each operation is one record
// with an OperationHeader, answered by one Reply; only Interrupt has no answer.
//
// The reply to Open carries two descriptors: the data socket, which becomes the program's netlink socket, and
// an event descriptor that counts losses, which overtake the data. Each datagram on the data socket begins
// with a DatagramHeader; a shorter one only wakes the reader so that it looks for losses. The server closes
// the netlink socket by closing its ends.

#include <cstddef>
#include <cstdint>

#include "tools/virtual-nfc/server/uniquefd.h"

namespace virtualnfc::wire {

enum class Operation : std::uint32_t {
  /// argument: the process id
  Open = 1,
  /// argument: the wanted port or 0
  Bind,
  /// argument: the group's number
  Join,
  /// followed by the bytes of the netlink message; the reply comes when the kernel has handled it
  Send,
  /// a signal has reached the thread that waits for the reply to Send
  Interrupt,
  /// argument: the size of the receive buffer in bytes
  ReceiveBuffer,
  /// followed by a line for the server, see controlprotocol.h; the reply is text. Needs its own connection
  Control,
};

struct OperationHeader {
  Operation operation;
  std::uint32_t argument;
};

struct Reply {
  /// errno or 0
  std::int32_t error;
  /// Bind and Send: the socket's port
  std::uint32_t port;
};

struct DatagramHeader {
  std::uint32_t sender;
  std::uint32_t groups;
};

/// The reply to Open, sent by the server and received by the program.
/// @returns false with errno
bool SendOpened(int control, const UniqueFd& data, const UniqueFd& losses);
bool ReceiveOpened(int control, UniqueFd& data, UniqueFd& losses);

/// The largest netlink message a program may send.
inline constexpr std::size_t kMaxMessage = 65536;

}  // namespace virtualnfc::wire
