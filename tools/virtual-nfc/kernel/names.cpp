#include "tools/virtual-nfc/kernel/names.h"

#include <fmt/format.h>
#include <linux/netlink.h>
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

#define VIRTUAL_NFC_ATTRIBUTE(scope, name, ...) \
  { Scope::scope, name, #name, __VA_ARGS__ }

constexpr Attribute kAttributes[] = {
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_DEVICE_INDEX, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_DEVICE_NAME, ValueKind::String),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_PROTOCOLS, ValueKind::Protocols),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_TARGET_INDEX, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_TARGET_SENS_RES, ValueKind::U16),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_TARGET_SEL_RES, ValueKind::U8),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_TARGET_NFCID1, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_TARGET_SENSB_RES, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_TARGET_SENSF_RES, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_RF_MODE, ValueKind::U8),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_DEVICE_POWERED, ValueKind::U8),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_IM_PROTOCOLS, ValueKind::Protocols),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_TM_PROTOCOLS, ValueKind::Protocols),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_TARGET_ISO15693_DSFID, ValueKind::U8),
    VIRTUAL_NFC_ATTRIBUTE(Nfc, NFC_ATTR_TARGET_ISO15693_UID, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(Controller, CTRL_ATTR_FAMILY_ID, ValueKind::U16),
    VIRTUAL_NFC_ATTRIBUTE(Controller, CTRL_ATTR_FAMILY_NAME, ValueKind::String),
    VIRTUAL_NFC_ATTRIBUTE(Controller, CTRL_ATTR_VERSION, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(Controller, CTRL_ATTR_HDRSIZE, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(Controller, CTRL_ATTR_MAXATTR, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(Controller, CTRL_ATTR_OPS, ValueKind::Nested, Scope::OperationList),
    VIRTUAL_NFC_ATTRIBUTE(Controller, CTRL_ATTR_MCAST_GROUPS, ValueKind::Nested, Scope::GroupList),
    VIRTUAL_NFC_ATTRIBUTE(Operation, CTRL_ATTR_OP_ID, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(Operation, CTRL_ATTR_OP_FLAGS, ValueKind::OperationFlags),
    VIRTUAL_NFC_ATTRIBUTE(Group, CTRL_ATTR_MCAST_GRP_NAME, ValueKind::String),
    VIRTUAL_NFC_ATTRIBUTE(Group, CTRL_ATTR_MCAST_GRP_ID, ValueKind::U32),
    // The entries of a list are numbered.
    {Scope::OperationList, 0, nullptr, ValueKind::Nested, Scope::Operation},
    {Scope::GroupList, 0, nullptr, ValueKind::Nested, Scope::Group},
};

/// Names for bits; a name for several bits stands before the names for each of them.
struct NamedBits {
  std::uint32_t bits;
  const char* name;
};

constexpr NamedBits kMessageFlags[] = {
    {NLM_F_REQUEST, "REQUEST"}, {NLM_F_MULTI, "MULTI"},         {NLM_F_ACK, "ACK"},
    {NLM_F_ECHO, "ECHO"},       {NLM_F_DUMP_INTR, "DUMP_INTR"}, {NLM_F_DUMP_FILTERED, "DUMP_FILTERED"},
    {NLM_F_DUMP, "DUMP"},       {NLM_F_ROOT, "ROOT"},           {NLM_F_MATCH, "MATCH"},
    {NLM_F_ATOMIC, "ATOMIC"},
};

/// In an error message the upper bits mean something else.
constexpr NamedBits kErrorFlags[] = {
    {NLM_F_REQUEST, "REQUEST"}, {NLM_F_MULTI, "MULTI"},       {NLM_F_ACK, "ACK"},
    {NLM_F_CAPPED, "CAPPED"},   {NLM_F_ACK_TLVS, "ACK_TLVS"},
};

constexpr NamedBits kProtocols[] = {
    {NFC_PROTO_JEWEL_MASK, "JEWEL"},       {NFC_PROTO_MIFARE_MASK, "MIFARE"},
    {NFC_PROTO_FELICA_MASK, "FELICA"},     {NFC_PROTO_ISO14443_MASK, "ISO14443"},
    {NFC_PROTO_NFC_DEP_MASK, "NFC_DEP"},   {NFC_PROTO_ISO14443_B_MASK, "ISO14443_B"},
    {NFC_PROTO_ISO15693_MASK, "ISO15693"},
};

constexpr NamedBits kOperationFlags[] = {
    {GENL_ADMIN_PERM, "ADMIN_PERM"},
    {GENL_CMD_CAP_DO, "DO"},
    {GENL_CMD_CAP_DUMP, "DUMP"},
    {GENL_CMD_CAP_HASPOL, "HASPOL"},
};

std::string BitNames(std::span<const NamedBits> names, std::uint32_t bits) {
  std::string text;
  for (const NamedBits& named : names) {
    if ((bits & named.bits) == named.bits) {
      text += (text.empty() ? "" : "|") + std::string(named.name);
      bits &= ~named.bits;
    }
  }
  if (bits != 0) {
    text += fmt::format("{}{:#x}", text.empty() ? "" : "|", bits);
  }
  return text.empty() ? "0" : text;
}

/// The kernel's number for "restart the call". No header for programs names it, and yet it reaches a program
/// when a signal ends the wait for the chip.
constexpr int kRestartSys = 512;
constexpr int kHighestError = 133;

}  // namespace

std::span<const Command> Commands(Family family) {
  switch (family) {
    case Family::Nfc:
      return kNfcCommands;
    case Family::Controller:
      return kControllerCommands;
    case Family::Unknown:
      break;
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

const Attribute* FindAttribute(Scope scope, std::uint16_t type) {
  for (const Attribute& attribute : kAttributes) {
    if (attribute.scope == scope && (attribute.type == type || attribute.name == nullptr)) {
      return &attribute;
    }
  }
  return nullptr;
}

std::string MessageFlagNames(std::uint32_t bits, bool isError) {
  return isError ? BitNames(kErrorFlags, bits) : BitNames(kMessageFlags, bits);
}

std::string ProtocolNames(std::uint32_t bits) {
  return BitNames(kProtocols, bits);
}

std::string OperationFlagNames(std::uint32_t bits) {
  return BitNames(kOperationFlags, bits);
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
