#pragma once

// Rules: how the simulated kernel departs from the real one, changed while it runs. A rule in words is
// "COMMAND [condition...] action...", as in "START_POLL nth=2 errno=EBUSY"; docs/man/virtual-nfc.1 describes
// the words.

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
  std::optional<std::uint32_t> device;
};

struct Rule {
  Family family = Family::Nfc;
  /// Nothing here: the rule applies to every command of the family and to no event.
  std::optional<std::uint8_t> command;
  std::optional<std::uint32_t> nth;
  std::optional<std::uint32_t> times;

  std::optional<int> error;
  std::chrono::milliseconds delay{0};
  std::optional<Fault> fault;
  bool cross = false;
  bool unplug = false;
  std::vector<Change> changes;
};

/// @throws std::invalid_argument naming the word that is wrong
Rule ParseRule(const std::string& text);

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
  std::uint32_t Add(const std::string& text);
  void Clear() { mRules.clear(); }
  std::vector<RuleStatus> List() const;

  /// The first rule, in order of addition, that fires for this occurrence. Every matching rule counts the
  /// occurrence.
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
