#pragma once

// Rules: how the simulated kernel departs from the real one, changed while it runs.
//
// A rule in words is "COMMAND [condition...] action...":
//   COMMAND     a command of the nfc family by name (START_POLL) or number, GETFAMILY (the look-up of a
//               family), an event by name (TARGETS_FOUND), or "any" for every command of the nfc family
//   conditions  nth=N      only the Nth match, counted from 1 since the rule was added
//               times=N    at most N times
//               port=N     only from the socket with this netlink port
//               device=N   only for the device with this number
//   actions     errno=E    answer this error (EBUSY or 16) instead of carrying the command out. EALREADY to
//   DEV_UP and
//                          DEV_DOWN is true: the device is in that state then
//               delay=MS   the command waits this long for its chip, and all other commands wait behind it
//               fault=F    the device has this fault afterwards (nfcdevice.h). "START_POLL fault=poll-dead"
//               starts a
//                          poll whose first frame fails; "STOP_POLL fault=chip-polls" is a chip that does not
//                          stop
//               cross      the chip finds a tag at the moment of STOP_POLL (Nci). The command takes 30 s or
//               until a
//                          signal, then answers 0, and the find is dropped. A command for a device within 250
//                          ms after it hangs, and so does everything after it, until the server ends. (The
//                          real kernel does this for DEV_DOWN only, and not every time.)
//               unplug     the device is unplugged during the command; the first device when it names none
//               drop       no answer
//               truncate=N the first message of the answer ends after N bytes
//               garble     the first message has nonsense instead of attributes
//               garble=how each attribute of the first message is wrong: "long" claims more bytes than there
//               are,
//                          "short" has one byte, "missing" lacks the one with the lowest number, "twice"
//                          repeats each with another value, "nested" puts all of them into the first
//               duplicate  every message of the answer comes twice
//               reverse    the messages of the answer come in reverse order
//               no-done    the end of a dump is missing
//               interrupted  the dump is marked as changed while it was read
//               seq=N      the answer has this sequence number
//               sender=N   the answer comes from this port, as if another process had sent it
//               overrun    no answer, and the socket has lost messages: its next receive fails (ENOBUFS)
//               close      no answer, and the socket is closed: every call on it fails (EBADF)
// Events cannot take errno, delay, cross, unplug, no-done and interrupted; overrun and close affect the
// sockets of all listeners.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/virtual-nfc/kernel/changes.h"
#include "tools/virtual-nfc/kernel/names.h"
#include "tools/virtual-nfc/kernel/nfcdevice.h"

namespace virtualnfc {

/// One command or event, as rules see it.
struct Occurrence {
  Family family = Family::Nfc;
  std::uint8_t command = 0;
  bool isEvent = false;
  std::uint32_t port = 0;
  std::optional<std::uint32_t> device;
};

struct Rule {
  Family family = Family::Nfc;
  /// None: every command of the family, no event.
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

  /// The first rule, in order of addition, that fires for this occurrence. Every rule that matches counts it.
  std::optional<Rule> Match(const Occurrence& occurrence);

 private:
  struct Entry {
    Rule rule;
    RuleStatus status;
  };

  std::vector<Entry> mRules;
  std::uint32_t mNextId = 1;
};

}  // namespace virtualnfc
