#pragma once

#include <cstddef>
#include <string>

/// How many hexadecimal digits a valid UID has: four to eight bytes.
inline constexpr std::size_t kLeastUidDigits = 8;
inline constexpr std::size_t kMostUidDigits = 16;

/// One sighting of a tag.
struct CToken {
  std::string uid;       ///< upper-case hexadecimal, two digits a byte, empty when the tag reported none;
                         ///< for a simulated swipe the requester's text unchanged
  std::string protocol;  ///< technology name: "MIFARE", "FELICA", ..., "InjectedToken"
};
