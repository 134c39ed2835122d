#pragma once

#include <string>

/// One sighting of a tag.
struct CToken {
  std::string uid;       ///< upper-case hexadecimal, two digits a byte, empty when the tag reported none;
                         ///< for a simulated swipe the requester's text unchanged
  std::string protocol;  ///< technology name: "MIFARE", "FELICA", ..., "InjectedToken"
};
