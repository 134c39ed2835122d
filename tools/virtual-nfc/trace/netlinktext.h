#pragma once

// Netlink messages as text that people read. Nothing is lost: what cannot be understood stands in the text as
// hexadecimal digits, and different messages have different texts. No sockets, no state.

#include <cstdint>
#include <string>
#include <vector>

#include "tools/virtual-nfc/kernel/genlmessage.h"

namespace virtualnfc {

/// Numbers that a kernel gives out at run time; the text has names in their place.
struct NetlinkIds {
  /// Of the family "nfc"; 0 when there is none.
  std::uint16_t family = 0;
  /// Of its group "events".
  std::uint32_t group = 0;
  /// Of the socket.
  std::uint32_t port = 0;

  std::uint32_t GroupMask() const { return group >= 1 && group <= 32 ? std::uint32_t{1} << (group - 1) : 0; }
};

/// One line of a message below its first: an attribute, the request that an error repeats ("to"), or what
/// cannot be understood ("undecodable").
struct TextLine {
  /// How deep it is nested.
  std::size_t depth = 0;
  std::string name;
  std::string value;
  /// The attribute ends the message without the padding that it should have.
  bool isUnpadded = false;
  /// For the reader only.
  std::string remark;
};

/// One message. The head is "FAMILY COMMAND flags=... seq=...", "ack ...", "error EBUSY ...", "done ...", or
/// "fragment" for bytes that are too few for a header; what is as usual is left out.
struct MessageText {
  std::string head;
  std::vector<TextLine> lines;
};

/// The messages that one datagram holds, at least one.
/// @param isEvent sent to a group: the port in its header is 0 then
std::vector<MessageText> DescribeDatagram(ByteView datagram, const NetlinkIds& ids, bool isEvent);

}  // namespace virtualnfc
