#pragma once

// What a rule does to the messages of an answer or event before they are sent.

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "tools/virtual-nfc/kernel/genlmessage.h"

namespace virtualnfc {

/// What is sent for one request or event: messages that may share datagrams, and who seems to send them.
struct Answer {
  std::vector<Bytes> messages;
  std::uint32_t sender = 0;
  /// The receiving socket has lost messages instead.
  bool overruns = false;
  /// The receiving socket is closed instead.
  bool closes = false;
};

struct Change {
  /// As in a rule; one that ends in '=' takes a number.
  std::string_view word;
  void (*apply)(Answer& answer, std::uint32_t number);
};

/// All changes that a rule can make.
std::span<const Change> Changes();

}  // namespace virtualnfc
