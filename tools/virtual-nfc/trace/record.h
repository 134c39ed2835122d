#pragma once

// A record of what programs and the kernel said to each other, as text: one entry for each datagram and for
// each thing that happened to a socket or at the reader. No sockets, no state.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/virtual-nfc/trace/netlinktext.h"

namespace virtualnfc {

enum class EntryKind {
  Open,
  /// The socket has got its netlink port.
  Port,
  Join,
  Leave,
  /// A signal has reached the program while its command waited.
  Signal,
  Close,
  /// Something happened at the reader; the words are those of the control line.
  Reader,
  /// A datagram to the kernel, from the kernel.
  Request,
  Delivery,
};

struct RecordEntry {
  EntryKind kind = EntryKind::Reader;
  std::chrono::milliseconds time{0};
  /// Counted from 1 in the order they come; 0 for Reader.
  std::uint32_t socket = 0;
  /// Reader: the words, or a remark that begins with '#'. Join, Leave: the group by name or number.
  std::string words;
  std::uint32_t port = 0;
  /// Join: the errno, or 0.
  int error = 0;
  /// Delivery: the port of the sender, and the groups it was sent to.
  std::uint32_t sender = 0;
  bool isEvent = false;
  /// Delivery: the receive buffer was full, the program never saw it.
  bool isLost = false;
  std::vector<MessageText> messages;
};

/// The first line of a record, with its end.
std::string FormatRecordHead(const NetlinkIds& ids);
/// The lines of one entry, with their ends.
std::string FormatEntry(const RecordEntry& entry);

/// "nfc.events", or the number.
std::string GroupText(std::uint32_t group, const NetlinkIds& ids);
}  // namespace virtualnfc
