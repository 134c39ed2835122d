#pragma once

// What a rule does to the messages of an answer or event before they are sent.

#include <cstdint>
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

enum class ChangeKind {
  Drop,
  Truncate,
  Garble,
  LongAttributes,
  ShortAttributes,
  MissingAttribute,
  RepeatedAttributes,
  NestedAttributes,
  Duplicate,
  Reverse,
  NoDone,
  Interrupted,
  Sequence,
  Sender,
  Overrun,
  Close,
};

struct Change {
  ChangeKind kind;
  std::uint32_t value = 0;
};

void ApplyChange(const Change& change, Answer& answer);

}  // namespace virtualnfc
