#pragma once

// The words with which a running server is steered, one line each:
//   tap KIND UID [HOLD_MS]   puts a tag in front of the reader, for good or for that time
//   remove                   takes all tags away
//   plug [N] / unplug [N]    the device comes or goes
//   fault NAME on|off [N]    what goes wrong with it without a word, see nfcdevice.h
//   status / status json     what the server knows
//   rule add RULE / rule list / rule clear
//   record [N]               what happens from now on, see record.h; "done" ends it after N messages
// The reply is "ok", or "error: " and why, in a line of its own; what was asked for follows.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/virtual-nfc/server/virtualnfc.h"

namespace virtualnfc {

/// What "record [N]" asks for: N, or 0; none when the line is another one. @throws std::invalid_argument
std::optional<std::uint32_t> ParseRecordLine(std::string_view line);

/// Carries one line out, but "record", whose reply has no end. Never throws for anything the line may hold;
/// does not block.
std::string HandleControlLine(VirtualNfc& server, std::string_view line);

/// Where a server at this address listens for these lines.
std::string ControlAddress(std::string_view address);

}  // namespace virtualnfc
