#pragma once

// What is different between messages of a record and those that a kernel gives now. No sockets, no state.

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "netlinktext.h"

namespace virtualnfc {

struct Difference {
  /// In the record's file.
  std::size_t line = 0;
  std::string text;
};

/// What a message is by its head: "nfc GET_TARGET", "done", "answer" for an acknowledgement or an error.
std::string KindOfMessage(const MessageText& message);

/// Word by word and attribute by attribute; remarks do not count.
std::vector<Difference> CompareMessages(const MessageText& recorded, const MessageText& now);

/// The messages of one datagram.
std::vector<Difference> CompareDatagrams(std::span<const MessageText> recorded,
                                         std::span<const MessageText> now);

}  // namespace virtualnfc
