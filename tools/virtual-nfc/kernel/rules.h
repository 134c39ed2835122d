#pragma once

// Rules: how the simulated kernel departs from the real one, changed while it runs. A rule in words is
// "COMMAND [condition...] action...", as in "START_POLL nth=2 errno=EBUSY"; docs/man/virtual-nfc.1 describes
// the words.

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/virtual-nfc/kernel/changes.h"
#include "tools/virtual-nfc/kernel/commands.h"
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
  std::string text;
  /// Occurrences of its command or event, and how often it fired.
  std::uint32_t seen = 0;
  std::uint32_t fired = 0;

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
  std::vector<std::function<void(Answer&)>> changes;
};

/// @throws std::invalid_argument naming the word that is wrong
Rule ParseRule(const std::string& text);

/// The first rule that fires for this occurrence. Every matching rule counts the occurrence.
std::optional<Rule> MatchRule(std::vector<Rule>& rules, const Occurrence& occurrence);

}  // namespace virtualnfc
