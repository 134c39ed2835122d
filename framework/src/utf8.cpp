#include "utf8.h"

#include <cstddef>
#include <cstdint>

namespace {

// Length of the well-formed sequence at `at`; 0 when there is none.
std::size_t SequenceLength(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t first = byte(at);
  if (first < 0x80) {
    return 1;
  }
  const std::size_t length = first >= 0xC2 && first <= 0xDF   ? 2
                             : first >= 0xE0 && first <= 0xEF ? 3
                             : first >= 0xF0 && first <= 0xF4 ? 4
                                                              : 0;
  if (length == 0 || length > text.size() - at) {
    return 0;
  }
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) {
      return 0;
    }
  }
  // Over-long forms, surrogates and what lies above U+10FFFF show in the second byte.
  const std::uint8_t second = byte(at + 1);
  const bool bad = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                   (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
  return bad ? 0 : length;
}

}  // namespace

std::string ValidUtf8(std::string text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = SequenceLength(text, at);
    if (length == 0) {
      text[at] = '?';
    }
    at += length == 0 ? 1 : length;
  }
  return text;
}
