#include "tools/virtual-nfc/kernel/netlinknames.h"

#include <fmt/format.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/nfc.h>

#include <cerrno>
#include <charconv>

namespace virtualnfc {

namespace {

// Each name once: its text and its number.
#define VIRTUAL_NFC_NAMED(prefix, name) \
  { prefix##name, #name }
#define VIRTUAL_NFC_ATTRIBUTE(name, ...) \
  { #name, name, __VA_ARGS__ }

constexpr AttributeInfo kNfcAttributes[] = {
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_DEVICE_INDEX, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_DEVICE_NAME, ValueKind::String),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_PROTOCOLS, ValueKind::Protocols),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_TARGET_INDEX, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_TARGET_SENS_RES, ValueKind::U16),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_TARGET_SEL_RES, ValueKind::U8),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_TARGET_NFCID1, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_TARGET_SENSB_RES, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_TARGET_SENSF_RES, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_COMM_MODE, ValueKind::U8),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_RF_MODE, ValueKind::U8),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_DEVICE_POWERED, ValueKind::U8),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_IM_PROTOCOLS, ValueKind::Protocols),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_TM_PROTOCOLS, ValueKind::Protocols),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_LLC_PARAM_LTO, ValueKind::U8),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_LLC_PARAM_RW, ValueKind::U8),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_LLC_PARAM_MIUX, ValueKind::U16),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_SE, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_LLC_SDP, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_FIRMWARE_NAME, ValueKind::String),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_SE_INDEX, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_SE_TYPE, ValueKind::U8),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_SE_AID, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_FIRMWARE_DOWNLOAD_STATUS, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_SE_APDU, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_TARGET_ISO15693_DSFID, ValueKind::U8),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_TARGET_ISO15693_UID, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_SE_PARAMS, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_VENDOR_ID, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_VENDOR_SUBCMD, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(NFC_ATTR_VENDOR_DATA, ValueKind::Hex),
};
constexpr AttributeSchema kNfcSchema{"NFC_ATTR_", kNfcAttributes};

constexpr AttributeInfo kOperationAttributes[] = {
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_OP_ID, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_OP_FLAGS, ValueKind::OperationFlags),
};
constexpr AttributeSchema kOperationSchema{"CTRL_ATTR_OP_", kOperationAttributes};
constexpr AttributeInfo kOperation{"", 0, ValueKind::Nested, &kOperationSchema};
constexpr AttributeSchema kOperationsSchema{"", {}, &kOperation};

constexpr AttributeInfo kGroupAttributes[] = {
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_MCAST_GRP_NAME, ValueKind::String),
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_MCAST_GRP_ID, ValueKind::GroupId),
};
constexpr AttributeSchema kGroupSchema{"CTRL_ATTR_MCAST_GRP_", kGroupAttributes};
constexpr AttributeInfo kGroup{"", 0, ValueKind::Nested, &kGroupSchema};
constexpr AttributeSchema kGroupsSchema{"", {}, &kGroup};

constexpr AttributeInfo kControllerAttributes[] = {
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_FAMILY_ID, ValueKind::FamilyId),
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_FAMILY_NAME, ValueKind::String),
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_VERSION, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_HDRSIZE, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_MAXATTR, ValueKind::U32),
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_OPS, ValueKind::Nested, &kOperationsSchema),
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_MCAST_GROUPS, ValueKind::Nested, &kGroupsSchema),
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_POLICY, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_OP_POLICY, ValueKind::Hex),
    VIRTUAL_NFC_ATTRIBUTE(CTRL_ATTR_OP, ValueKind::U32),
};
constexpr AttributeSchema kControllerSchema{"CTRL_ATTR_", kControllerAttributes};

constexpr AttributeSchema kUnknownSchema{"ATTR_", {}};

constexpr NamedNumber kNfcCommands[] = {
    VIRTUAL_NFC_NAMED(NFC_CMD_, UNSPEC),
    VIRTUAL_NFC_NAMED(NFC_CMD_, GET_DEVICE),
    VIRTUAL_NFC_NAMED(NFC_CMD_, DEV_UP),
    VIRTUAL_NFC_NAMED(NFC_CMD_, DEV_DOWN),
    VIRTUAL_NFC_NAMED(NFC_CMD_, DEP_LINK_UP),
    VIRTUAL_NFC_NAMED(NFC_CMD_, DEP_LINK_DOWN),
    VIRTUAL_NFC_NAMED(NFC_CMD_, START_POLL),
    VIRTUAL_NFC_NAMED(NFC_CMD_, STOP_POLL),
    VIRTUAL_NFC_NAMED(NFC_CMD_, GET_TARGET),
    VIRTUAL_NFC_NAMED(NFC_EVENT_, TARGETS_FOUND),
    VIRTUAL_NFC_NAMED(NFC_EVENT_, DEVICE_ADDED),
    VIRTUAL_NFC_NAMED(NFC_EVENT_, DEVICE_REMOVED),
    VIRTUAL_NFC_NAMED(NFC_EVENT_, TARGET_LOST),
    VIRTUAL_NFC_NAMED(NFC_EVENT_, TM_ACTIVATED),
    VIRTUAL_NFC_NAMED(NFC_EVENT_, TM_DEACTIVATED),
    VIRTUAL_NFC_NAMED(NFC_CMD_, LLC_GET_PARAMS),
    VIRTUAL_NFC_NAMED(NFC_CMD_, LLC_SET_PARAMS),
    VIRTUAL_NFC_NAMED(NFC_CMD_, ENABLE_SE),
    VIRTUAL_NFC_NAMED(NFC_CMD_, DISABLE_SE),
    VIRTUAL_NFC_NAMED(NFC_CMD_, LLC_SDREQ),
    VIRTUAL_NFC_NAMED(NFC_EVENT_, LLC_SDRES),
    VIRTUAL_NFC_NAMED(NFC_CMD_, FW_DOWNLOAD),
    VIRTUAL_NFC_NAMED(NFC_EVENT_, SE_ADDED),
    VIRTUAL_NFC_NAMED(NFC_EVENT_, SE_REMOVED),
    VIRTUAL_NFC_NAMED(NFC_EVENT_, SE_CONNECTIVITY),
    VIRTUAL_NFC_NAMED(NFC_EVENT_, SE_TRANSACTION),
    VIRTUAL_NFC_NAMED(NFC_CMD_, GET_SE),
    VIRTUAL_NFC_NAMED(NFC_CMD_, SE_IO),
    VIRTUAL_NFC_NAMED(NFC_CMD_, ACTIVATE_TARGET),
    VIRTUAL_NFC_NAMED(NFC_CMD_, VENDOR),
    VIRTUAL_NFC_NAMED(NFC_CMD_, DEACTIVATE_TARGET),
};

constexpr NamedNumber kControllerCommands[] = {
    VIRTUAL_NFC_NAMED(CTRL_CMD_, UNSPEC),       VIRTUAL_NFC_NAMED(CTRL_CMD_, NEWFAMILY),
    VIRTUAL_NFC_NAMED(CTRL_CMD_, DELFAMILY),    VIRTUAL_NFC_NAMED(CTRL_CMD_, GETFAMILY),
    VIRTUAL_NFC_NAMED(CTRL_CMD_, NEWOPS),       VIRTUAL_NFC_NAMED(CTRL_CMD_, DELOPS),
    VIRTUAL_NFC_NAMED(CTRL_CMD_, GETOPS),       VIRTUAL_NFC_NAMED(CTRL_CMD_, NEWMCAST_GRP),
    VIRTUAL_NFC_NAMED(CTRL_CMD_, DELMCAST_GRP), VIRTUAL_NFC_NAMED(CTRL_CMD_, GETMCAST_GRP),
    VIRTUAL_NFC_NAMED(CTRL_CMD_, GETPOLICY),
};

constexpr NamedNumber kErrors[] = {
    VIRTUAL_NFC_NAMED(, EPERM),
    VIRTUAL_NFC_NAMED(, ENOENT),
    VIRTUAL_NFC_NAMED(, EINTR),
    VIRTUAL_NFC_NAMED(, EIO),
    VIRTUAL_NFC_NAMED(, EAGAIN),
    VIRTUAL_NFC_NAMED(, ENOMEM),
    VIRTUAL_NFC_NAMED(, EACCES),
    VIRTUAL_NFC_NAMED(, EBUSY),
    VIRTUAL_NFC_NAMED(, EEXIST),
    VIRTUAL_NFC_NAMED(, ENODEV),
    VIRTUAL_NFC_NAMED(, EINVAL),
    VIRTUAL_NFC_NAMED(, ERANGE),
    VIRTUAL_NFC_NAMED(, ENOSYS),
    VIRTUAL_NFC_NAMED(, EPROTO),
    VIRTUAL_NFC_NAMED(, EMSGSIZE),
    VIRTUAL_NFC_NAMED(, EOPNOTSUPP),
    VIRTUAL_NFC_NAMED(, ENETDOWN),
    VIRTUAL_NFC_NAMED(, ENOBUFS),
    VIRTUAL_NFC_NAMED(, ETIMEDOUT),
    VIRTUAL_NFC_NAMED(, EHOSTDOWN),
    VIRTUAL_NFC_NAMED(, EALREADY),
    VIRTUAL_NFC_NAMED(, ECONNREFUSED),
    VIRTUAL_NFC_NAMED(, ERFKILL),
    {512, "ERESTARTSYS"},  // escapes to a program whose wait a signal has ended
};

constexpr NamedBits kMessageFlags[] = {
    VIRTUAL_NFC_NAMED(NLM_F_, REQUEST),
    VIRTUAL_NFC_NAMED(NLM_F_, MULTI),
    VIRTUAL_NFC_NAMED(NLM_F_, ACK),
    VIRTUAL_NFC_NAMED(NLM_F_, ECHO),
    {NLM_F_DUMP_INTR, "DUMP_INTR"},
    {NLM_F_DUMP_FILTERED, "DUMP_FILTERED"},
    {NLM_F_DUMP, "DUMP"},
    VIRTUAL_NFC_NAMED(NLM_F_, ROOT),
    VIRTUAL_NFC_NAMED(NLM_F_, MATCH),
    VIRTUAL_NFC_NAMED(NLM_F_, ATOMIC),
};

constexpr NamedBits kErrorFlags[] = {
    VIRTUAL_NFC_NAMED(NLM_F_, REQUEST),
    VIRTUAL_NFC_NAMED(NLM_F_, MULTI),
    VIRTUAL_NFC_NAMED(NLM_F_, ACK),
    {0x100, "CAPPED"},  // the request is not repeated
    {0x200, "ACK_TLVS"},
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
    {GENL_UNS_ADMIN_PERM, "UNS_ADMIN_PERM"},
};

constexpr struct {
  std::uint16_t bit;
  std::string_view name;
} kTypeFlags[] = {{NLA_F_NESTED, "|NESTED"}, {NLA_F_NET_BYTEORDER, "|NET_BYTEORDER"}};

}  // namespace

const AttributeSchema& NfcSchema() {
  return kNfcSchema;
}
const AttributeSchema& ControllerSchema() {
  return kControllerSchema;
}
const AttributeSchema& UnknownSchema() {
  return kUnknownSchema;
}
std::span<const NamedNumber> NfcCommands() {
  return kNfcCommands;
}
std::span<const NamedNumber> ControllerCommands() {
  return kControllerCommands;
}
std::span<const NamedNumber> ErrorNames() {
  return kErrors;
}
std::span<const NamedBits> MessageFlags(bool isError) {
  return isError ? std::span<const NamedBits>(kErrorFlags) : std::span<const NamedBits>(kMessageFlags);
}
std::span<const NamedBits> ProtocolNames() {
  return kProtocols;
}
std::span<const NamedBits> OperationFlagNames() {
  return kOperationFlags;
}

const AttributeInfo* FindAttribute(const AttributeSchema& schema, std::uint16_t type) {
  if (schema.entry != nullptr) return schema.entry;
  for (const AttributeInfo& info : schema.known) {
    if (info.type == (type & NLA_TYPE_MASK)) return &info;
  }
  return nullptr;
}

std::string AttributeName(const AttributeSchema& schema, std::uint16_t type) {
  const unsigned number = type & NLA_TYPE_MASK;
  const AttributeInfo* info = FindAttribute(schema, type);
  std::string name = schema.entry != nullptr ? fmt::format("[{}]", number)
                     : info != nullptr       ? info->name
                                             : fmt::format("{}{}", schema.prefix, number);
  for (const auto& flag : kTypeFlags) {
    if ((type & flag.bit) != 0) name += flag.name;
  }
  return name;
}

std::string NameOf(std::span<const NamedNumber> names, int number) {
  for (const NamedNumber& named : names) {
    if (named.number == number) return named.name;
  }
  return std::to_string(number);
}

std::string BitNames(std::span<const NamedBits> names, std::uint32_t bits) {
  std::string text;
  for (const NamedBits& named : names) {
    if ((bits & named.bits) == named.bits) {
      text += (text.empty() ? "" : "|") + std::string(named.name);
      bits &= ~named.bits;
    }
  }
  if (bits != 0) text += fmt::format("{}{:#x}", text.empty() ? "" : "|", bits);
  return text.empty() ? "0" : text;
}

}  // namespace virtualnfc
