#pragma once

// The commands that control a running server. They are defined once, as subcommands of the tool: the tool
// checks its command line with them and sends it on, and the server parses it with them again.
//
// A request is one line, "tap 04A12B5C --hold 0.5". The reply is a line "ok" or "error: REASON", followed by
// the text that was asked for. Requests and netlink messages use the same socket of the server.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/virtual-nfc/server/virtualnfc.h"

namespace virtualnfc {

class ControlCommands {
 public:
  /// Adds the subcommands to the app. This object must live for as long as the app parses.
  explicit ControlCommands(CLI::App& app);
  ControlCommands(const ControlCommands&) = delete;
  ControlCommands& operator=(const ControlCommands&) = delete;

  /// Carries out the command that the app has parsed. Returns the text for the user. Does not block.
  /// @throws std::invalid_argument
  std::string CarryOut(VirtualNfc& server) const { return mCommand(server); }

 private:
  using Command = std::function<std::string(VirtualNfc& server)>;

  void AddRuleCommands(CLI::App& app);
  CLI::App& Add(CLI::App& parent, const char* name, const char* help, Command command);

  Command mCommand;
  std::string mUid;
  std::string mKind = "mifare";
  double mHold = 0;
  std::optional<std::uint32_t> mDevice;
  std::string mFault;
  bool mIsOff = false;
  std::vector<std::string> mRule;
};

/// Carries out one line and returns the reply. Does not throw for bad input; does not block.
std::string HandleControlLine(VirtualNfc& server, const std::string& line);

/// Sends a line to the server at this address and waits for the reply, up to five seconds.
/// @returns the reply; empty, with errno, when the server cannot be reached or does not reply in time
std::string AskServer(const std::string& address, std::string_view line);

}  // namespace virtualnfc
