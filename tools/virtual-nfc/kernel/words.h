#pragma once

// Command lines and rules as words and numbers.

#include <cstdint>
#include <string_view>
#include <vector>

namespace virtualnfc {

using Words = std::vector<std::string_view>;

/// The words of the text, which they point into; blanks separate them.
Words SplitWords(std::string_view text);

/// @param what for the error, such as "the device number" @throws std::invalid_argument
std::uint32_t ParseNumber(std::string_view what, std::string_view text, std::uint32_t min = 0,
                          std::uint32_t max = 0xFFFFFFFF);

}  // namespace virtualnfc
