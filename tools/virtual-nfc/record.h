#pragma once

// A record of what programs and the kernel said to each other, as text: one entry for each datagram and for
// each thing that happened to a socket or at the reader. No sockets, no state.

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "netlinktext.h"

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
  /// In its file, from 1.
  std::size_t number = 0;
};

struct Record {
  /// Those of the kernel that was recorded.
  NetlinkIds ids;
  std::vector<RecordEntry> entries;
};

/// The first line of a record, with its end.
std::string FormatRecordHead(const NetlinkIds& ids);
/// The lines of one entry, with their ends.
std::string FormatEntry(const RecordEntry& entry);

/// @throws RecordError for the first line that is not as it should be
Record ParseRecord(std::string_view text);

/// "nfc.events", or the number; and back, with the numbers of another kernel.
std::string GroupText(std::uint32_t group, const NetlinkIds& ids);
std::uint32_t GroupNumber(std::string_view text, const NetlinkIds& ids, std::size_t line);

/// The words with something else after the "port=" of a rule: a record names the socket there, "#1", since
/// ports are not the same in another run. @param replace gets what stands there, and returns what shall
std::string ReplacePort(std::string_view words, const std::function<std::string(std::string_view)>& replace);

/// The messages of one entry in words, for a report: "#1 <- nfc GET_TARGET ..."
std::string EntryTitle(const RecordEntry& entry, const MessageText& message);

}  // namespace virtualnfc
