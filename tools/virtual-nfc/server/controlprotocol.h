#pragma once

// The text protocol that controls a running server, one line per request:
//   tap KIND UID [HOLD_MS]   put a tag in front of the reader, for this time or until it is removed
//   remove                   take all tags away
//   plug [N] / unplug [N]    plug a device in, unplug it
//   fault NAME on|off [N]    start or end a fault of the device, see nfcdevice.h
//   status [json]            show what the server knows
//   rule add RULE / rule list / rule clear
//   record [N]               record what happens from now on, up to N messages
// Without N, unplug and fault mean the first device. The reply is "ok" or "error: REASON" in a line of its
// own; the requested text follows. The reply to "record" is the record alone, see recorder.h.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/virtual-nfc/server/virtualnfc.h"

namespace virtualnfc {

/// The N of a line "record [N]", 0 without one; nothing for any other line. @throws std::invalid_argument
std::optional<std::uint32_t> ParseRecordLine(std::string_view line);

/// Carries out one line other than "record" and returns the reply. Does not throw for bad input; does not
/// block.
std::string HandleControlLine(VirtualNfc& server, std::string_view line);

/// Where a server at this address listens for these lines.
std::string ControlAddress(std::string_view address);

}  // namespace virtualnfc
