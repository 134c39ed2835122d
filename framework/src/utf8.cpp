#include "utf8.h"

#include <algorithm>
#include <cstdint>

std::size_t Utf8Length(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  if (text.empty()) {
    return 0;
  }
  const std::uint8_t first = byte(0);
  if (first < 0x80) {
    return 1;
  }
  const std::size_t length = first >= 0xC2 && first <= 0xDF   ? 2
                             : first >= 0xE0 && first <= 0xEF ? 3
                             : first >= 0xF0 && first <= 0xF4 ? 4
                                                              : 0;
  if (length == 0 || length > text.size()) {
    return 0;
  }
  const auto isContinuation = [](char c) { return (static_cast<std::uint8_t>(c) & 0xC0) == 0x80; };
  const std::uint8_t second = byte(1);
  const bool isOverlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
  const bool isSurrogate = first == 0xED && second > 0x9F;
  const bool isBeyondUnicode = first == 0xF4 && second > 0x8F;
  return isOverlong || isSurrogate || isBeyondUnicode ||
                 !std::all_of(text.begin() + 1, text.begin() + length, isContinuation)
             ? 0
             : length;
}

std::string ValidUtf8(std::string text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = Utf8Length(std::string_view(text).substr(at));
    if (length == 0) {
      text[at] = '?';
    }
    at += std::max<std::size_t>(length, 1);
  }
  return text;
}
