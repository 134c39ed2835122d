#include "valuetext.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "tag.h"

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

Bytes NumberOfWidth(std::uint32_t number, std::size_t width) {
  const auto byte = static_cast<std::uint8_t>(number);
  const auto half = static_cast<std::uint16_t>(number);
  Bytes bytes(width);
  const void* from = width == 1   ? static_cast<const void*>(&byte)
                     : width == 2 ? static_cast<const void*>(&half)
                                  : &number;
  std::memcpy(bytes.data(), from, width);
  return bytes;
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

Bytes BuildString(std::string_view text, std::size_t line) {
  Bytes bytes;
  text = text.substr(1, text.size() - 2);
  while (!text.empty()) {
    std::size_t used = 1;
    if (text.front() != '\\') {
      bytes.push_back(static_cast<std::uint8_t>(text.front()));
    } else if (text.starts_with("\\x") && text.size() >= 4) {
      const auto byte = ParseUnsigned("0x" + std::string(text.substr(2, 2)));
      if (!byte) throw RecordError(line, fmt::format("'{}' is no character", text.substr(0, 4)));
      bytes.push_back(static_cast<std::uint8_t>(*byte));
      used = 4;
    } else if (text.size() >= 2 && (text[1] == '"' || text[1] == '\\')) {
      bytes.push_back(static_cast<std::uint8_t>(text[1]));
      used = 2;
    } else {
      throw RecordError(line, fmt::format("'{}' begins no character", text.substr(0, 2)));
    }
    text.remove_prefix(used);
  }
  bytes.push_back(0);
  return bytes;
}

std::optional<std::uint32_t> BuildNumber(ValueKind kind, std::string_view text, const NetlinkIds& ids) {
  switch (kind) {
    case ValueKind::Protocols:
      return ParseBitNames(ProtocolNames(), text);
    case ValueKind::OperationFlags:
      return ParseBitNames(OperationFlagNames(), text);
    case ValueKind::FamilyId:
      return text == kFamilyName ? ids.family : ParseUnsigned(text, 0xFFFF);
    case ValueKind::GroupId:
      return text == kGroupName ? ids.group : ParseUnsigned(text);
    case ValueKind::U8:
      return ParseUnsigned(text, 0xFF);
    case ValueKind::U16:
      return ParseUnsigned(text, 0xFFFF);
    case ValueKind::U32:
      return ParseUnsigned(text);
    case ValueKind::Hex:
    case ValueKind::String:
    case ValueKind::Nested:
      return std::nullopt;
  }
  return std::nullopt;
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

Bytes BuildValue(ValueKind kind, std::string_view text, const NetlinkIds& ids, std::size_t line) {
  if (text == kHex) return {};
  if (text.starts_with("hex ")) {
    try {
      return ParseHex(text.substr(kHex.size() + 1));
    } catch (const std::invalid_argument& error) {
      throw RecordError(line, error.what());
    }
  }
  if (kind == ValueKind::String && text.size() >= 2 && text.front() == '"' &&
      EndOfString(text) == text.size()) {
    return BuildString(text, line);
  }
  const auto number = BuildNumber(kind, text, ids);
  if (!number) throw RecordError(line, fmt::format("'{}' is no value for this", text));
  return NumberOfWidth(*number, WidthOf(kind));
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

std::int32_t BuildCode(std::string_view text, std::size_t line) {
  for (const NamedNumber& error : ErrorNames()) {
    if (text == error.name) return -error.number;
  }
  const auto number = NumberOf({}, text);
  if (!number) throw RecordError(line, fmt::format("'{}' is no error", text));
  return *number;
}

std::size_t EndOfString(std::string_view text) {
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == '"') {
      return i + 1;
    }
  }
  return text.size();
}

}  // namespace virtualnfc
