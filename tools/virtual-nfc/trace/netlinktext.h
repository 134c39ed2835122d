#pragma once

// Netlink messages as text for people. No sockets, no state.

#include <cstdint>
#include <string>
#include <vector>

#include "tools/virtual-nfc/kernel/genlmessage.h"

namespace virtualnfc {

/// Describes the messages of one datagram, at least one. Each text begins with "FAMILY COMMAND flags=...
/// seq=...", "ack ...", "error EBUSY ..." or "done ..."; one indented line follows for each attribute. Fields
/// with their usual value are left out.
/// @param familyId of the family "nfc"; 0 when there is none
/// @param port the port that is usual in the header: that of the socket, 0 for an event
std::vector<std::string> DescribeDatagram(ByteView datagram, std::uint16_t familyId, std::uint32_t port);

}  // namespace virtualnfc
