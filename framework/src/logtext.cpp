#include "logtext.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "utf8.h"

namespace {

/// Length of the printable character at the start of `text`; 0 when its first byte has to be escaped.
std::size_t PrintableLength(std::string_view text) {
  const std::size_t length = Utf8Length(text);
  const auto first = static_cast<std::uint8_t>(text[0]);
  const bool isC0 = first < 0x20 || first == 0x7F;
  const bool isC1 = length == 2 && first == 0xC2 && static_cast<std::uint8_t>(text[1]) < 0xA0;
  return isC0 || isC1 ? 0 : length;
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
    } else {
      fmt::format_to(std::back_inserter(line), "\\x{:02x}", static_cast<std::uint8_t>(text[0]));
    }
    text.remove_prefix(std::max<std::size_t>(printable, 1));
  }
}
