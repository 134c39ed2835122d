#include "tools/virtual-nfc/kernel/names.h"

#include <linux/nfc.h>

#include <algorithm>
#include <cstring>

namespace virtualnfc {

namespace {

constexpr std::uint32_t kDo = GENL_CMD_CAP_DO | GENL_CMD_CAP_HASPOL;
constexpr std::uint32_t kDump = GENL_CMD_CAP_DUMP | GENL_CMD_CAP_HASPOL;
constexpr std::uint32_t kAdmin = kDo | GENL_ADMIN_PERM;

constexpr Command kNfcCommands[] = {
    {"GET_DEVICE", NFC_CMD_GET_DEVICE, kDo | kDump},
    {"DEV_UP", NFC_CMD_DEV_UP, kAdmin},
    {"DEV_DOWN", NFC_CMD_DEV_DOWN, kAdmin},
    {"START_POLL", NFC_CMD_START_POLL, kAdmin},
    {"STOP_POLL", NFC_CMD_STOP_POLL, kAdmin},
    {"DEP_LINK_UP", NFC_CMD_DEP_LINK_UP, kAdmin},
    {"DEP_LINK_DOWN", NFC_CMD_DEP_LINK_DOWN, kAdmin},
    {"GET_TARGET", NFC_CMD_GET_TARGET, kDump},
    {"LLC_GET_PARAMS", NFC_CMD_LLC_GET_PARAMS, kDo},
    {"LLC_SET_PARAMS", NFC_CMD_LLC_SET_PARAMS, kAdmin},
    {"LLC_SDREQ", NFC_CMD_LLC_SDREQ, kAdmin},
    {"FW_DOWNLOAD", NFC_CMD_FW_DOWNLOAD, kAdmin},
    {"ENABLE_SE", NFC_CMD_ENABLE_SE, kAdmin},
    {"DISABLE_SE", NFC_CMD_DISABLE_SE, kAdmin},
    {"GET_SE", NFC_CMD_GET_SE, kDump},
    {"SE_IO", NFC_CMD_SE_IO, kAdmin},
    {"ACTIVATE_TARGET", NFC_CMD_ACTIVATE_TARGET, kAdmin},
    {"VENDOR", NFC_CMD_VENDOR, kAdmin},
    {"DEACTIVATE_TARGET", NFC_CMD_DEACTIVATE_TARGET, kAdmin},
    {"UNSPEC", NFC_CMD_UNSPEC},
    {"TARGETS_FOUND", NFC_EVENT_TARGETS_FOUND},
    {"DEVICE_ADDED", NFC_EVENT_DEVICE_ADDED},
    {"DEVICE_REMOVED", NFC_EVENT_DEVICE_REMOVED},
    {"TARGET_LOST", NFC_EVENT_TARGET_LOST},
};

constexpr Command kControllerCommands[] = {
    {"GETFAMILY", CTRL_CMD_GETFAMILY, kDo | kDump},
    {"GETPOLICY", CTRL_CMD_GETPOLICY, kDump},
    {"NEWFAMILY", CTRL_CMD_NEWFAMILY},
};

constexpr int kHighestError = 133;

}  // namespace

std::span<const Command> Commands(Family family) {
  switch (family) {
    case Family::Nfc:
      return kNfcCommands;
    case Family::Controller:
      return kControllerCommands;
  }
  return {};
}

const Command* FindCommand(Family family, std::uint8_t number) {
  const auto commands = Commands(family);
  const auto found = std::find_if(commands.begin(), commands.end(),
                                  [number](const Command& command) { return command.number == number; });
  return found == commands.end() ? nullptr : &*found;
}

std::string CommandName(Family family, std::uint8_t number) {
  const Command* command = FindCommand(family, number);
  return command != nullptr ? command->name : std::to_string(number);
}

std::string ErrorName(int error) {
  const char* name = error == kRestartSys ? "ERESTARTSYS" : ::strerrorname_np(error);
  return name != nullptr ? name : std::to_string(error);
}

std::optional<int> FindError(std::string_view name) {
  for (int error = 1; error <= kHighestError; ++error) {
    if (name == ErrorName(error)) {
      return error;
    }
  }
  return std::nullopt;
}

}  // namespace virtualnfc
