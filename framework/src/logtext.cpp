#include "logtext.h"

#include <cstdint>
#include <iterator>

namespace {

bool IsContinuation(char byte) {
  return (static_cast<std::uint8_t>(byte) & 0xC0U) == 0x80U;
}

/// Length of the printable character at the start of `text`; 0 when its first byte has to be escaped.
std::size_t PrintableLength(std::string_view text) {
  const auto first = static_cast<std::uint8_t>(text[0]);
  if (first < 0x80) {
    return first >= 0x20 && first != 0x7F ? 1 : 0;
  }
  const std::size_t length = first >= 0xC2 && first <= 0xDF   ? 2
                             : first >= 0xE0 && first <= 0xEF ? 3
                             : first >= 0xF0 && first <= 0xF4 ? 4
                                                              : 0;
  if (length == 0 || text.size() < length) {
    return 0;
  }
  for (std::size_t i = 1; i < length; ++i) {
    if (!IsContinuation(text[i])) {
      return 0;
    }
  }
  const auto second = static_cast<std::uint8_t>(text[1]);
  const bool control = first == 0xC2 && second < 0xA0;  // U+0080 to U+009F
  const bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
  const bool surrogate = first == 0xED && second >= 0xA0;
  const bool outOfRange = first == 0xF4 && second >= 0x90;
  return control || overlong || surrogate || outOfRange ? 0 : length;
}

}  // namespace

void AppendLogText(fmt::memory_buffer& line, std::string_view text) {
  constexpr std::size_t kEscapedLength = 4;
  const std::size_t limit = line.size() + kLongestLogText;
  while (!text.empty()) {
    const std::size_t printable = PrintableLength(text);
    if (line.size() + (printable > 0 ? printable : kEscapedLength) > limit) {
      fmt::format_to(std::back_inserter(line), " ... ({} bytes more)", text.size());
      return;
    }
    if (printable > 0) {
      line.append(text.data(), text.data() + printable);
      text.remove_prefix(printable);
    } else {
      constexpr char kDigits[] = "0123456789abcdef";
      const auto byte = static_cast<std::uint8_t>(text[0]);
      const char escaped[kEscapedLength] = {'\\', 'x', kDigits[byte >> 4U], kDigits[byte & 0xFU]};
      line.append(escaped, escaped + kEscapedLength);
      text.remove_prefix(1);
    }
  }
}
