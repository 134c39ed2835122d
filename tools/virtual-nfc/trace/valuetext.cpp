#include "tools/virtual-nfc/trace/valuetext.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace virtualnfc {

namespace {

constexpr std::string_view kHex = "hex";
constexpr std::string_view kFamilyName = "nfc";
constexpr std::string_view kGroupName = "nfc.events";

std::size_t WidthOf(ValueKind kind) {
  switch (kind) {
    case ValueKind::U8:
      return 1;
    case ValueKind::U16:
    case ValueKind::FamilyId:
      return 2;
    case ValueKind::U32:
    case ValueKind::Protocols:
    case ValueKind::OperationFlags:
    case ValueKind::GroupId:
      return 4;
    case ValueKind::Hex:
    case ValueKind::String:
    case ValueKind::Nested:
      return 0;
  }
  return 0;
}

std::uint32_t NumberIn(ByteView value) {
  std::uint8_t byte = 0;
  std::uint16_t half = 0;
  std::uint32_t whole = 0;
  switch (value.size()) {
    case sizeof(byte):
      return value[0];
    case sizeof(half):
      std::memcpy(&half, value.data(), sizeof(half));
      return half;
    default:
      std::memcpy(&whole, value.data(), sizeof(whole));
      return whole;
  }
}

std::string DescribeString(ByteView value) {
  std::string text = "\"";
  for (const std::uint8_t byte : value.first(value.size() - 1)) {
    if (byte == '"' || byte == '\\') {
      text += fmt::format("\\{}", static_cast<char>(byte));
    } else if (byte < 0x20 || byte >= 0x7F) {
      text += fmt::format("\\x{:02x}", byte);
    } else {
      text += static_cast<char>(byte);
    }
  }
  return text + '"';
}

}  // namespace

std::string DescribeValue(ValueKind kind, ByteView value, const NetlinkIds& ids, std::string& remark) {
  if (kind == ValueKind::String && !value.empty() &&
      std::find(value.begin(), value.end(), 0) == value.end() - 1) {
    return DescribeString(value);
  }
  const std::size_t width = WidthOf(kind);
  if (width == 0 || value.size() != width) {
    if (width != 0) remark = fmt::format("{} byte(s) instead of {}", value.size(), width);
    return HexValue(value);
  }
  const std::uint32_t number = NumberIn(value);
  switch (kind) {
    case ValueKind::Protocols:
      remark = fmt::format("{:#04x}", number);
      return BitNames(ProtocolNames(), number);
    case ValueKind::OperationFlags:
      return BitNames(OperationFlagNames(), number);
    case ValueKind::FamilyId:
      if (number == 0 || number != ids.family) break;
      remark = std::to_string(number);
      return std::string(kFamilyName);
    case ValueKind::GroupId:
      if (number == 0 || number != ids.group) break;
      remark = std::to_string(number);
      return std::string(kGroupName);
    case ValueKind::U8:
    case ValueKind::U16:
    case ValueKind::U32:
    case ValueKind::Hex:
    case ValueKind::String:
    case ValueKind::Nested:
      break;
  }
  return std::to_string(number);
}

std::string HexValue(ByteView bytes) {
  std::string text(kHex);
  if (!bytes.empty()) text += fmt::format(" {:02x}", fmt::join(bytes, ""));
  return text;
}

std::string DescribeCode(std::int32_t code) {
  for (const NamedNumber& error : ErrorNames()) {
    if (code == -error.number) return error.name;
  }
  return std::to_string(code);
}

}  // namespace virtualnfc
