#pragma once

// The one table of names: commands, events and errors. Rules and the control lines use these names, and the
// simulated kernel lists its commands from here.

#include <linux/genetlink.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace virtualnfc {

enum class Family { Nfc, Controller };

/// A command or an event of a family.
struct Command {
  const char* name;
  std::uint8_t number;
  /// Who may use it and how: GENL_ADMIN_PERM and GENL_CMD_CAP_*. 0 for what only the kernel sends.
  std::uint32_t flags = 0;

  bool IsOperation() const { return flags != 0; }
};

/// In the order in which the kernel lists them.
std::span<const Command> Commands(Family family);
/// Null when the family has no such command or event.
const Command* FindCommand(Family family, std::uint8_t number);
/// "START_POLL", or the number when it has no name.
std::string CommandName(Family family, std::uint8_t number);

/// The kernel's number for "restart the call". No header for programs defines it, but it reaches the program
/// when a signal ends the wait for the chip.
inline constexpr int kRestartSys = 512;

/// "EBUSY" for 16, or the number. @param error positive
std::string ErrorName(int error);
/// The error with this name, positive.
std::optional<int> FindError(std::string_view name);

}  // namespace virtualnfc
