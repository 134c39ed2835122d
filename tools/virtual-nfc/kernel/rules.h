#pragma once

// Rules: what the simulated kernel shall do otherwise than the real one, while it runs.
//
// A rule in words is "COMMAND [condition...] action...":
//   COMMAND     a command of the nfc family by name (START_POLL) or number, GETFAMILY (the look-up of a
//               family), an event by name (TARGETS_FOUND), or "any" for every command of the nfc family
//   conditions  nth=N      only the Nth matching one (counted from 1 since the rule was added)
//               times=N    at most N times
//               port=N     only from the socket with this netlink port
//               device=N   only for the device with this number
//   actions     errno=E    answer this error (EBUSY or 16) instead of carrying the command out; EALREADY to
//                          DEV_UP and DEV_DOWN is true: the device is in that state then
//               delay=MS   the command waits that long for its chip, and so do all other commands
//               fault=F    afterwards the device has this fault, as if it had been set (nfcdevice.h). So
//                          "START_POLL fault=poll-dead" begins a poll whose first frame fails, and "STOP_POLL
//                          fault=chip-polls" is a chip that does not stop
//               cross      a tag is found in the moment of STOP_POLL (Nci): the command takes 30 s or until a
//                          signal, then answers 0, and the find is dropped. A command for a device within
//                          250 ms after it hangs, with all that follow, until the server ends (the real
//                          kernel: DEV_DOWN only, and not every time)
//               unplug     the device goes while the command is under way; the first one when it names none
//               drop       no answer
//               truncate=N the first message of the answer ends after N bytes
//               garble     the first message has nonsense instead of attributes
//               garble=how its attributes, each of them, are wrong: "long" says more bytes than there are,
//                          "short" has one byte, "missing" lacks the one with the lowest number, "twice" has
//                          each again with another value, "nested" has all of them within the first
//               duplicate  every message of the answer comes twice
//               reverse    the messages of the answer come in reverse order
//               no-done    a dump does not end
//               interrupted  what a dump lists has changed in the middle of it
//               seq=N      the answer carries this sequence number
//               sender=N   the answer comes from this port, as if another process had sent it
//               overrun    no answer, and the socket has lost messages: its next receive fails (ENOBUFS)
//               close      no answer, and the socket is closed: whatever it is used for fails (EBADF)
// Events know no errno, delay, cross, unplug, no-done and interrupted; overrun and close hit the sockets of
// all listeners.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/virtual-nfc/kernel/genlmessage.h"
#include "tools/virtual-nfc/kernel/nfcdevice.h"

namespace virtualnfc {

/// What is sent for one request or event: messages that may share datagrams, and who seems to send them.
struct Answer {
  std::vector<Bytes> messages;
  std::uint32_t sender = 0;
  /// The socket that should get it has lost messages instead.
  bool overruns = false;
  /// The socket that should get it is closed instead.
  bool closes = false;
};

/// Which commands or events a rule is asked about.
struct Occurrence {
  enum class Family { Nfc, Controller };
  Family family = Family::Nfc;
  std::uint8_t command = 0;
  bool isEvent = false;
  std::uint32_t port = 0;
  std::optional<std::uint32_t> device;
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

struct Rule {
  Occurrence::Family family = Occurrence::Family::Nfc;
  /// Empty: every command of the family, no event.
  std::optional<std::uint8_t> command;
  std::optional<std::uint32_t> nth;
  std::optional<std::uint32_t> times;
  std::optional<std::uint32_t> port;
  std::optional<std::uint32_t> device;

  std::optional<int> error;
  std::chrono::milliseconds delay{0};
  std::optional<Fault> fault;
  bool cross = false;
  bool unplug = false;
  std::vector<Change> changes;
};

/// @throws std::invalid_argument naming the word that is wrong
Rule ParseRule(std::string_view text);

/// What a rule does to an answer that is about to be sent.
void ApplyChanges(const std::vector<Change>& changes, Answer& answer);

struct RuleStatus {
  std::uint32_t id = 0;
  std::string text;
  std::uint32_t seen = 0;
  std::uint32_t fired = 0;
};

/// The rules in force. Not thread-safe; its owner locks.
class RuleSet {
 public:
  /// @returns the rule's id
  /// @throws std::invalid_argument
  std::uint32_t Add(std::string_view text);
  void Clear() { mRules.clear(); }
  std::vector<RuleStatus> List() const;

  /// The first rule in order of addition that fires for this occurrence; every rule that matches counts it.
  std::optional<Rule> Match(const Occurrence& occurrence);

 private:
  struct Entry {
    Rule rule;
    RuleStatus status;
  };

  std::vector<Entry> mRules;
  std::uint32_t mNextId = 1;
};

/// "START_POLL", or the number of a command that has no name here.
std::string CommandName(std::uint8_t command);

}  // namespace virtualnfc
