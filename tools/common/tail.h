#pragma once

#include <string>
#include <string_view>

/// The last lines of a text.
inline std::string Tail(std::string_view text, size_t lines = 20) {
  size_t begin = text.size();
  for (size_t line = 0; line <= lines && begin != std::string_view::npos && begin > 0; ++line) {
    begin = text.rfind('\n', begin - 1);
  }
  return std::string(text.substr(begin == std::string_view::npos ? 0 : begin));
}
