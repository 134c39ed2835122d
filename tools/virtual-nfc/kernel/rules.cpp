#include "tools/virtual-nfc/kernel/rules.h"

#include <fmt/format.h>
#include <linux/nfc.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <sstream>
#include <stdexcept>

namespace virtualnfc {

namespace {

constexpr int kMaxErrno = 4095;
constexpr std::uint32_t kMaxDelayMs = 10 * 60 * 1000;

/// A word that ends in '=' takes a number.
struct ChangeWord {
  std::string_view word;
  ChangeKind kind;
};

constexpr ChangeWord kChanges[] = {
    {"drop", ChangeKind::Drop},
    {"truncate=", ChangeKind::Truncate},
    {"garble", ChangeKind::Garble},
    {"garble=long", ChangeKind::LongAttributes},
    {"garble=short", ChangeKind::ShortAttributes},
    {"garble=missing", ChangeKind::MissingAttribute},
    {"garble=twice", ChangeKind::RepeatedAttributes},
    {"garble=nested", ChangeKind::NestedAttributes},
    {"duplicate", ChangeKind::Duplicate},
    {"reverse", ChangeKind::Reverse},
    {"no-done", ChangeKind::NoDone},
    {"interrupted", ChangeKind::Interrupted},
    {"seq=", ChangeKind::Sequence},
    {"sender=", ChangeKind::Sender},
    {"overrun", ChangeKind::Overrun},
    {"close", ChangeKind::Close},
};

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

bool IsNumber(std::string_view text) {
  return !text.empty() && std::isdigit(static_cast<unsigned char>(text.front())) != 0;
}

int ParseErrno(std::string_view text) {
  if (text.empty() || IsNumber(text)) {
    return static_cast<int>(ParseNumber("errno", text, 1, kMaxErrno));
  }
  const auto error = FindError(text);
  if (!error) {
    throw std::invalid_argument(fmt::format("unknown error name '{}'", text));
  }
  return *error;
}

void ParseCommand(std::string_view word, Rule& rule) {
  if (word == "any") {
    return;
  }
  if (IsNumber(word)) {
    rule.command = static_cast<std::uint8_t>(ParseNumber("a command", word, 0, 255));
    return;
  }
  for (const Family family : {Family::Nfc, Family::Controller}) {
    for (const Command& command : Commands(family)) {
      if (word == command.name && (family == Family::Nfc || command.IsOperation())) {
        rule.family = family;
        rule.command = command.number;
        return;
      }
    }
  }
  throw std::invalid_argument(fmt::format("unknown command '{}'", word));
}

void ParseWord(std::string_view word, Rule& rule) {
  const std::string_view key = word.substr(0, std::min(word.find('='), word.size() - 1) + 1);
  const std::string_view value = word.substr(key.size());
  for (const ChangeWord& change : kChanges) {
    if (word == change.word) {
      rule.changes.push_back({change.kind});
      return;
    }
    if (key == change.word) {
      rule.changes.push_back({change.kind, ParseNumber(key.substr(0, key.size() - 1), value)});
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
  return rule.error || rule.delay.count() != 0 || rule.cross || rule.unplug ||
         std::any_of(rule.changes.begin(), rule.changes.end(), [](const Change& change) {
           return change.kind == ChangeKind::NoDone || change.kind == ChangeKind::Interrupted;
         });
}

}  // namespace

Rule ParseRule(const std::string& text) {
  std::istringstream words(text);
  std::string word;
  if (!(words >> word)) {
    throw std::invalid_argument("a rule begins with a command");
  }
  Rule rule;
  ParseCommand(word, rule);
  while (words >> word) {
    ParseWord(word, rule);
  }
  if (!IsForCommandsOnly(rule) && !rule.fault && rule.changes.empty()) {
    throw std::invalid_argument("the rule has no action");
  }
  if (IsEvent(rule) && IsForCommandsOnly(rule)) {
    throw std::invalid_argument("events cannot take errno, delay, cross, unplug, no-done or interrupted");
  }
  return rule;
}

std::uint32_t RuleSet::Add(const std::string& text) {
  mRules.push_back(Entry{ParseRule(text), RuleStatus{mNextId, text}});
  return mNextId++;
}

std::vector<RuleStatus> RuleSet::List() const {
  std::vector<RuleStatus> all;
  for (const Entry& entry : mRules) {
    all.push_back(entry.status);
  }
  return all;
}

std::optional<Rule> RuleSet::Match(const Occurrence& occurrence) {
  std::optional<Rule> fires;
  for (Entry& entry : mRules) {
    const Rule& rule = entry.rule;
    if (rule.family != occurrence.family ||
        (rule.command ? *rule.command != occurrence.command : occurrence.isEvent)) {
      continue;
    }
    ++entry.status.seen;
    if (fires || (rule.nth && *rule.nth != entry.status.seen) ||
        (rule.times && entry.status.fired >= *rule.times)) {
      continue;
    }
    ++entry.status.fired;
    fires = rule;
  }
  return fires;
}

}  // namespace virtualnfc
