#include "src/components/nfcmessages.h"

#include <linux/genetlink.h>
#include <linux/nfc.h>
#include <netlink/attr.h>
#include <netlink/genl/genl.h>

#include <array>
#include <cstring>
#include <iterator>
#include <utility>

#include "framework/format.h"

namespace {

constexpr int kIso15693UidSize = 8;

template <int MaxType>
using Attributes = std::array<nlattr*, MaxType + 1>;

/// Sorts attributes by type. Nothing when a type comes twice: do not guess which of two UIDs is the card's.
template <int MaxType>
std::optional<Attributes<MaxType>> Sort(nlattr* first, int length) {
  Attributes<MaxType> attributes{};
  for (auto* attribute = first; nla_ok(attribute, length) != 0; attribute = nla_next(attribute, &length)) {
    const auto type = static_cast<size_t>(nla_type(attribute));
    if (type != 0 && type < attributes.size() && std::exchange(attributes[type], attribute) != nullptr) {
      return std::nullopt;
    }
  }
  return attributes;
}

template <int MaxType>
std::optional<Attributes<MaxType>> Parse(nlmsghdr* message) {
  if (genlmsg_valid_hdr(message, 0) == 0) {
    return std::nullopt;
  }
  auto* header = static_cast<genlmsghdr*>(nlmsg_data(message));
  return Sort<MaxType>(genlmsg_attrdata(header, 0), genlmsg_attrlen(header, 0));
}

std::optional<uint32_t> ReadU32(const nlattr* attribute) {
  if (attribute == nullptr || nla_len(attribute) < static_cast<int>(sizeof(uint32_t))) {
    return std::nullopt;
  }
  return nla_get_u32(attribute);
}

/// Accepts only text that ends within the attribute.
std::optional<std::string> ReadString(const nlattr* attribute) {
  if (attribute == nullptr) {
    return std::nullopt;
  }
  const auto* begin = static_cast<const char*>(nla_data(attribute));
  const auto* end =
      static_cast<const char*>(std::memchr(begin, '\0', static_cast<size_t>(nla_len(attribute))));
  if (end == nullptr) {
    return std::nullopt;
  }
  return std::string(begin, end);
}

std::vector<uint8_t> ReadBytes(const nlattr* attribute, int least, int most) {
  if (attribute == nullptr || nla_len(attribute) < least || nla_len(attribute) > most) {
    return {};
  }
  const auto* data = static_cast<const uint8_t*>(nla_data(attribute));
  return {data, data + nla_len(attribute)};
}

}  // namespace

std::optional<uint8_t> DecodeCommand(nlmsghdr* message) {
  if (genlmsg_valid_hdr(message, 0) == 0) {
    return std::nullopt;
  }
  return static_cast<genlmsghdr*>(nlmsg_data(message))->cmd;
}

std::optional<uint32_t> DecodeMulticastGroup(nlmsghdr* message, std::string_view group) {
  const auto attributes = Parse<CTRL_ATTR_MAX>(message);
  if (!attributes || (*attributes)[CTRL_ATTR_MCAST_GROUPS] == nullptr) {
    return std::nullopt;
  }
  const auto* groups = (*attributes)[CTRL_ATTR_MCAST_GROUPS];
  int remaining = nla_len(groups);
  for (auto* entry = static_cast<nlattr*>(nla_data(groups)); nla_ok(entry, remaining) != 0;
       entry = nla_next(entry, &remaining)) {
    const auto fields = Sort<CTRL_ATTR_MCAST_GRP_MAX>(static_cast<nlattr*>(nla_data(entry)), nla_len(entry));
    if (!fields) {
      continue;
    }
    const auto name = ReadString((*fields)[CTRL_ATTR_MCAST_GRP_NAME]);
    const auto id = ReadU32((*fields)[CTRL_ATTR_MCAST_GRP_ID]);
    if (name && id && *name == group) {
      return id;
    }
  }
  return std::nullopt;
}

std::optional<NfcDeviceInfo> DecodeDevice(nlmsghdr* message) {
  const auto attributes = Parse<NFC_ATTR_MAX>(message);
  if (!attributes) {
    return std::nullopt;
  }
  const auto index = ReadU32((*attributes)[NFC_ATTR_DEVICE_INDEX]);
  auto name = ReadString((*attributes)[NFC_ATTR_DEVICE_NAME]);
  const auto protocols = ReadU32((*attributes)[NFC_ATTR_PROTOCOLS]);
  if (!index || !name || !protocols) {
    return std::nullopt;
  }
  return NfcDeviceInfo{.index = *index, .name = std::move(*name), .protocols = *protocols, .powered = false};
}

std::optional<uint32_t> DecodeDeviceIndex(nlmsghdr* message) {
  const auto attributes = Parse<NFC_ATTR_MAX>(message);
  return attributes ? ReadU32((*attributes)[NFC_ATTR_DEVICE_INDEX]) : std::nullopt;
}

std::optional<NfcTarget> DecodeTarget(nlmsghdr* message) {
  const auto attributes = Parse<NFC_ATTR_MAX>(message);
  if (!attributes) {
    return std::nullopt;
  }
  const auto protocols = ReadU32((*attributes)[NFC_ATTR_PROTOCOLS]);
  if (!protocols) {
    return std::nullopt;
  }
  NfcTarget target{.protocols = *protocols,
                   .uid = ReadBytes((*attributes)[NFC_ATTR_TARGET_NFCID1], 1, NFC_NFCID1_MAXSIZE)};
  if (target.uid.empty()) {
    const auto overTheAir =
        ReadBytes((*attributes)[NFC_ATTR_TARGET_ISO15693_UID], kIso15693UidSize, kIso15693UidSize);
    target.uid.assign(overTheAir.rbegin(), overTheAir.rend());
  }
  return target;
}

std::string FormatUid(const std::vector<uint8_t>& uid) {
  std::string text;
  for (const auto byte : uid) {
    fmt::format_to(std::back_inserter(text), "{:02X}", byte);
  }
  return text;
}
