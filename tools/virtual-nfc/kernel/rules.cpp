#include "tools/virtual-nfc/kernel/rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace virtualnfc {

namespace {

constexpr int kMaxErrno = 4095;
constexpr int kHighestNamedErrno = 133;
constexpr std::uint32_t kMaxDelayMs = 10 * 60 * 1000;

std::uint32_t ParseNumber(std::string_view what, std::string_view text, std::uint32_t min = 0,
                          std::uint32_t max = 0xFFFFFFFF) {
  std::uint32_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, value);
  if (text.empty() || failure != std::errc() || stop != end || value < min || value > max) {
    throw std::invalid_argument(fmt::format("{} is a number from {} to {}, not '{}'", what, min, max, text));
  }
  return value;
}

int ParseErrno(std::string_view text) {
  if (text.empty() || std::isdigit(static_cast<unsigned char>(text.front())) != 0) {
    return static_cast<int>(ParseNumber("errno", text, 1, kMaxErrno));
  }
  for (int error = 1; error <= kHighestNamedErrno; ++error) {
    const char* name = ::strerrorname_np(error);
    if (name != nullptr && text == name) {
      return error;
    }
  }
  throw std::invalid_argument(fmt::format("unknown error name '{}'", text));
}

void ParseCommand(std::string_view word, Rule& rule) {
  if (word == "any") {
    return;
  }
  const auto* found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                   [word](const Command& command) { return word == command.name; });
  if (found == std::end(kCommands)) {
    throw std::invalid_argument(fmt::format("unknown command '{}'", word));
  }
  rule.family = found->family;
  rule.command = found->number;
}

void ParseWord(std::string_view word, Rule& rule) {
  const std::string_view key = word.substr(0, std::min(word.find('='), word.size() - 1) + 1);
  const std::string_view value = word.substr(key.size());
  for (const Change& change : Changes()) {
    const bool takesNumber = change.word.ends_with('=');
    if (change.word == (takesNumber ? key : word)) {
      const auto number = takesNumber ? ParseNumber(key.substr(0, key.size() - 1), value) : 0;
      rule.changes.emplace_back([&change, number](Answer& answer) { change.apply(answer, number); });
      return;
    }
  }
  if (key == "nth=") {
    rule.nth = ParseNumber("nth", value, 1);
  } else if (key == "times=") {
    rule.times = ParseNumber("times", value, 1);
  } else if (key == "errno=") {
    rule.error = ParseErrno(value);
  } else if (key == "fault=") {
    rule.fault = ParseFault(value);
  } else if (key == "delay=") {
    rule.delay = std::chrono::milliseconds(ParseNumber("delay", value, 0, kMaxDelayMs));
  } else if (word == "cross") {
    rule.cross = true;
  } else if (word == "unplug") {
    rule.unplug = true;
  } else {
    throw std::invalid_argument(fmt::format("'{}' is neither a condition nor an action", word));
  }
}

bool IsEvent(const Rule& rule) {
  return rule.family == Family::Nfc && rule.command && *rule.command >= NFC_EVENT_TARGETS_FOUND &&
         *rule.command <= NFC_EVENT_TM_DEACTIVATED;
}

bool IsForCommandsOnly(const Rule& rule) {
  return rule.error || rule.delay.count() != 0 || rule.cross || rule.unplug;
}

}  // namespace

Rule ParseRule(const std::string& text) {
  std::istringstream words(text);
  std::string word;
  if (!(words >> word)) {
    throw std::invalid_argument("a rule begins with a command");
  }
  Rule rule;
  rule.text = text;
  ParseCommand(word, rule);
  while (words >> word) {
    ParseWord(word, rule);
  }
  if (!IsForCommandsOnly(rule) && !rule.fault && rule.changes.empty()) {
    throw std::invalid_argument("the rule has no action");
  }
  if (IsEvent(rule) && IsForCommandsOnly(rule)) {
    throw std::invalid_argument("events cannot take errno, delay, cross or unplug");
  }
  return rule;
}

std::optional<Rule> MatchRule(std::vector<Rule>& rules, const Occurrence& occurrence) {
  std::optional<Rule> fires;
  for (Rule& rule : rules) {
    if (rule.family != occurrence.family ||
        (rule.command ? *rule.command != occurrence.command : occurrence.isEvent)) {
      continue;
    }
    ++rule.seen;
    if (fires || (rule.nth && *rule.nth != rule.seen) || (rule.times && rule.fired >= *rule.times)) {
      continue;
    }
    ++rule.fired;
    fires = rule;
  }
  return fires;
}

}  // namespace virtualnfc
