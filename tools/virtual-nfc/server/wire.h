#pragma once

// What the interposer and the server say to each other. One SOCK_SEQPACKET control connection stands for one
// netlink socket of the program and lives as long as it: the server takes its end for the socket's close.
// Each operation is one record with this header, answered by one Reply, but Interrupt, which is not answered.
//
// Open is answered with two descriptors: the data socket, which the program takes for its netlink socket, and
// a page of shared memory with the receive errors, which overtake the data. On the data socket each datagram
// begins with a DatagramHeader; an empty one only wakes the reader up to look there.

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace virtualnfc::wire {

enum class Operation : std::uint32_t {
  Open = 1,
  /// first: the wanted port or 0; second: mask of the first 32 groups
  Bind,
  /// first: group number
  Join,
  Leave,
  /// followed by the bytes of the netlink message; answered when the kernel has dealt with it
  Send,
  /// a signal has reached the thread that waits for the answer to Send
  Interrupt,
  /// first: the size of the receive buffer in bytes
  ReceiveBuffer,
};

struct OperationHeader {
  Operation operation;
  std::uint32_t first;
  std::uint32_t second;
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

struct SharedPage {
  /// Counts the losses; each is reported once by the next receive call.
  std::atomic<std::uint32_t> overruns;
  /// Not 0: the socket is closed, whatever is asked of it fails.
  std::atomic<std::uint32_t> closed;
};
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

/// The largest netlink message a program may send.
inline constexpr std::size_t kMaxMessage = 65536;

}  // namespace virtualnfc::wire
