#include "tools/virtual-nfc/kernel/words.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>

namespace virtualnfc {

Words SplitWords(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  Words words;
  for (std::size_t at = 0; (at = text.find_first_not_of(kBlanks, at)) != std::string_view::npos;) {
    const std::size_t end = std::min(text.find_first_of(kBlanks, at), text.size());
    words.push_back(text.substr(at, end - at));
    at = end;
  }
  return words;
}

std::uint32_t ParseNumber(std::string_view what, std::string_view text, std::uint32_t min,
                          std::uint32_t max) {
  std::uint32_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, value);
  if (text.empty() || failure != std::errc() || stop != end || value < min || value > max) {
    throw std::invalid_argument(fmt::format("{} is a number from {} to {}, not '{}'", what, min, max, text));
  }
  return value;
}

}  // namespace virtualnfc
