#pragma once

// The words with which a running server is steered, one line each:
//   tap KIND UID [HOLD_MS]   puts a tag in front of the reader, for good or for that time
//   remove                   takes all tags away
//   plug [N] / unplug [N]    the device comes or goes
//   status / status json     what the server knows
//   rule add RULE / rule list / rule clear
// The reply is "ok", or "error: " and why, in a line of its own; what was asked for follows.

#include <string>
#include <string_view>

#include "virtualnfc.h"

namespace virtualnfc {

/// Carries one line out. Never throws for anything the line may hold; does not block.
std::string HandleControlLine(VirtualNfc& server, std::string_view line);

/// Where a server at this address listens for these lines.
std::string ControlAddress(std::string_view address);

}  // namespace virtualnfc
