#include "tools/virtual-nfc/kernel/tag.h"

#include <fmt/format.h>
#include <linux/nfc.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>

namespace virtualnfc {

namespace {

struct KindInfo {
  const char* name;
  Radio radio;
  std::uint32_t protocols;
  std::uint8_t selRes;
};

/// In the order of TagKind.
constexpr KindInfo kKinds[] = {
    {"mifare", Radio::A, NFC_PROTO_MIFARE_MASK, 0x00},
    {"felica", Radio::F, NFC_PROTO_FELICA_MASK, 0x00},
    {"iso14443a", Radio::A, NFC_PROTO_ISO14443_MASK, 0x20},
    {"nfc-dep", Radio::A, NFC_PROTO_NFC_DEP_MASK, 0x40},
    {"iso14443b", Radio::B, NFC_PROTO_ISO14443_B_MASK, 0x00},
    {"iso15693", Radio::V, NFC_PROTO_ISO15693_MASK, 0x00},
    {"foreign", Radio::A, 0, 0x08},
};

template <typename Value>
Bytes NumberBytes(Value value) {
  const ByteView bytes = BytesOf(value);
  return Bytes(bytes.begin(), bytes.end());
}

void RequireLength(const KindInfo& info, const Bytes& uid, std::initializer_list<std::size_t> allowed) {
  if (std::find(allowed.begin(), allowed.end(), uid.size()) == allowed.end()) {
    throw std::invalid_argument(fmt::format("a tag of kind {} has a UID of {} bytes, not {}", info.name,
                                            fmt::join(allowed, ", "), uid.size()));
  }
}

void Append(Bytes& bytes, std::initializer_list<std::uint8_t> more) {
  bytes.insert(bytes.end(), more);
}

}  // namespace

Bytes ParseHex(std::string_view text) {
  if (text.size() % 2 != 0) {
    throw std::invalid_argument(fmt::format("'{}' ends in half a byte", text));
  }
  Bytes bytes(text.size() / 2);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char* digits = text.data() + 2 * i;
    const auto [stop, failure] = std::from_chars(digits, digits + 2, bytes[i], 16);
    if (failure != std::errc() || stop != digits + 2) {
      throw std::invalid_argument(fmt::format("'{}' is not hexadecimal", text));
    }
  }
  return bytes;
}

std::size_t IndexOf(std::string_view what, std::string_view name, const std::vector<std::string>& known) {
  const auto found = std::find(known.begin(), known.end(), name);
  if (found == known.end()) {
    throw std::invalid_argument(
        fmt::format("unknown {} '{}'; known are {}", what, name, fmt::join(known, ", ")));
  }
  return static_cast<std::size_t>(found - known.begin());
}

Tag MakeTag(TagKind kind, std::string_view uid, Stack stack) {
  const KindInfo& info = kKinds[static_cast<std::size_t>(kind)];
  Bytes bytes = ParseHex(uid);
  Tag tag{std::string(uid), info.radio, info.protocols, {}};
  // The upper bits of SENS_RES tell the length of an NFC-A number.
  const bool isA = info.radio == Radio::A;
  const std::uint16_t sensRes = !isA ? 0x00 : bytes.size() == 7 ? 0x44 : bytes.size() == 10 ? 0x84 : 0x04;
  tag.attributes = {{NFC_ATTR_PROTOCOLS, NumberBytes(info.protocols)},
                    {NFC_ATTR_TARGET_SENS_RES, NumberBytes(sensRes)},
                    {NFC_ATTR_TARGET_SEL_RES, NumberBytes(info.selRes)}};
  switch (info.radio) {
    case Radio::A:
      RequireLength(info, bytes, {0, 4, 7, 10});
      if (!bytes.empty()) {
        tag.attributes.emplace_back(NFC_ATTR_TARGET_NFCID1, std::move(bytes));
      }
      break;
    case Radio::B:
      RequireLength(info, bytes, {4, 11});
      if (bytes.size() == 4) {
        Append(bytes, {0x00, 0x00, 0x00, 0x00, 0x80, 0x80, 0x71});
      }
      if (stack == Stack::Nci) {
        tag.attributes.emplace_back(NFC_ATTR_TARGET_SENSB_RES, std::move(bytes));
      }
      break;
    case Radio::F:
      RequireLength(info, bytes, {8, std::size_t{stack == Stack::Nci ? 16U : 17U}, 18});
      if (bytes.size() == 8) {
        Append(bytes, {0x01, 0x20, 0x22, 0x04, 0x27, 0x67, 0x4E, 0xFF});
        if (stack == Stack::Nci) {
          Append(bytes, {0x12, 0xFC});
        } else {
          bytes.insert(bytes.begin(), 0x01);
        }
      }
      tag.attributes.emplace_back(NFC_ATTR_TARGET_SENSF_RES, std::move(bytes));
      break;
    case Radio::V:
      RequireLength(info, bytes, {8});
      // The printed number is sent, and reported, last byte first.
      std::reverse(bytes.begin(), bytes.end());
      tag.attributes.emplace_back(NFC_ATTR_TARGET_ISO15693_DSFID, Bytes{0x00});
      tag.attributes.emplace_back(NFC_ATTR_TARGET_ISO15693_UID, std::move(bytes));
      break;
  }
  return tag;
}

const std::vector<std::string>& TagKindNames() {
  static const std::vector<std::string> kNames = [] {
    std::vector<std::string> all;
    for (const KindInfo& info : kKinds) {
      all.emplace_back(info.name);
    }
    return all;
  }();
  return kNames;
}

TagKind ParseTagKind(std::string_view name) {
  return static_cast<TagKind>(IndexOf("kind of tag", name, TagKindNames()));
}

bool IsPolled(std::uint32_t protocolMask, Radio radio) {
  // In the order of Radio.
  constexpr std::uint32_t kWanted[] = {
      NFC_PROTO_JEWEL_MASK | NFC_PROTO_MIFARE_MASK | NFC_PROTO_ISO14443_MASK | NFC_PROTO_NFC_DEP_MASK,
      NFC_PROTO_ISO14443_B_MASK, NFC_PROTO_FELICA_MASK | NFC_PROTO_NFC_DEP_MASK, NFC_PROTO_ISO15693_MASK};
  return (protocolMask & kWanted[static_cast<std::size_t>(radio)]) != 0;
}

}  // namespace virtualnfc
