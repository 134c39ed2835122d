#include "tools/virtual-nfc/kernel/rules.h"

#include <fmt/format.h>
#include <linux/nfc.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>

namespace virtualnfc {

namespace {

struct CommandInfo {
  const char* name;
  std::uint8_t number;
};

constexpr CommandInfo kCommands[] = {
    {"UNSPEC", NFC_CMD_UNSPEC},
    {"GET_DEVICE", NFC_CMD_GET_DEVICE},
    {"DEV_UP", NFC_CMD_DEV_UP},
    {"DEV_DOWN", NFC_CMD_DEV_DOWN},
    {"START_POLL", NFC_CMD_START_POLL},
    {"STOP_POLL", NFC_CMD_STOP_POLL},
    {"GET_TARGET", NFC_CMD_GET_TARGET},
    {"TARGETS_FOUND", NFC_EVENT_TARGETS_FOUND},
    {"DEVICE_ADDED", NFC_EVENT_DEVICE_ADDED},
    {"DEVICE_REMOVED", NFC_EVENT_DEVICE_REMOVED},
};

constexpr CommandInfo kErrors[] = {
    {"EPERM", EPERM},
    {"ENOENT", ENOENT},
    {"EIO", EIO},
    {"ENOMEM", ENOMEM},
    {"EBUSY", EBUSY},
    {"ENODEV", ENODEV},
    {"EINVAL", EINVAL},
    {"ENOSYS", ENOSYS},
    {"EPROTO", EPROTO},
    {"ENOBUFS", ENOBUFS},
    {"ENETDOWN", ENETDOWN},
    {"ETIMEDOUT", ETIMEDOUT},
    {"EOPNOTSUPP", EOPNOTSUPP},
    {"EALREADY", EALREADY},
    {"EHOSTDOWN", EHOSTDOWN},
    {"ERFKILL", ERFKILL},
    {"ECONNREFUSED", ECONNREFUSED},
};

/// The actions that need no number.
struct PlainChange {
  const char* word;
  ChangeKind kind;
};

constexpr PlainChange kPlainChanges[] = {
    {"drop", ChangeKind::Drop},
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
    {"overrun", ChangeKind::Overrun},
    {"close", ChangeKind::Close},
};

constexpr int kMaxErrno = 4095;
constexpr std::uint32_t kMaxDelayMs = 10 * 60 * 1000;

bool IsEventNumber(std::uint8_t number) {
  return number >= NFC_EVENT_TARGETS_FOUND && number <= NFC_EVENT_TM_DEACTIVATED;
}

std::uint32_t ParseNumber(std::string_view word, std::string_view text, std::uint32_t max = 0xFFFFFFFF) {
  std::uint32_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, value);
  if (text.empty() || failure != std::errc() || stop != end || value > max) {
    throw std::invalid_argument(fmt::format("'{}' needs a number up to {}, not '{}'", word, max, text));
  }
  return value;
}

int ParseErrno(std::string_view word, std::string_view text) {
  for (const CommandInfo& info : kErrors) {
    if (text == info.name) return info.number;
  }
  const auto value = static_cast<int>(ParseNumber(word, text, kMaxErrno));
  if (value == 0) {
    throw std::invalid_argument(fmt::format("'{}' is no error", word));
  }
  return value;
}

void ParseCommand(std::string_view word, Rule& rule) {
  if (word == "any") return;
  if (word == "GETFAMILY") {
    rule.family = Occurrence::Family::Controller;
    rule.command = CTRL_CMD_GETFAMILY;
    return;
  }
  for (const CommandInfo& info : kCommands) {
    if (word == info.name) {
      rule.command = info.number;
      return;
    }
  }
  if (!word.empty() && word.front() >= '0' && word.front() <= '9') {
    rule.command = static_cast<std::uint8_t>(ParseNumber(word, word, 255));
    return;
  }
  throw std::invalid_argument(fmt::format("unknown command '{}'", word));
}

/// One condition or action. False when the word is none.
bool ParseWord(std::string_view word, Rule& rule) {
  const std::size_t equals = word.find('=');
  const std::string_view key = word.substr(0, equals);
  const std::string_view value = equals == std::string_view::npos ? "" : word.substr(equals + 1);
  if (word == "unplug") {
    return rule.unplug = true;
  }
  if (word == "cross") {
    return rule.cross = true;
  }
  for (const PlainChange& plain : kPlainChanges) {
    if (word == plain.word) {
      rule.changes.push_back({plain.kind});
      return true;
    }
  }
  if (key == "nth") {
    rule.nth = ParseNumber(word, value);
  } else if (key == "times") {
    rule.times = ParseNumber(word, value);
  } else if (key == "port") {
    rule.port = ParseNumber(word, value);
  } else if (key == "device") {
    rule.device = ParseNumber(word, value);
  } else if (key == "errno") {
    rule.error = ParseErrno(word, value);
  } else if (key == "fault") {
    rule.fault = ParseFault(value);
  } else if (key == "delay") {
    rule.delay = std::chrono::milliseconds(ParseNumber(word, value, kMaxDelayMs));
  } else if (key == "truncate") {
    rule.changes.push_back({ChangeKind::Truncate, ParseNumber(word, value)});
  } else if (key == "seq") {
    rule.changes.push_back({ChangeKind::Sequence, ParseNumber(word, value)});
  } else if (key == "sender") {
    rule.changes.push_back({ChangeKind::Sender, ParseNumber(word, value)});
  } else {
    return false;
  }
  return true;
}

bool HasChange(const Rule& rule, ChangeKind kind) {
  return std::any_of(rule.changes.begin(), rule.changes.end(),
                     [kind](const Change& change) { return change.kind == kind; });
}

/// Inverts every byte from there on.
void Invert(Bytes& bytes, std::size_t from) {
  const auto start = bytes.begin() + static_cast<std::ptrdiff_t>(std::min(from, bytes.size()));
  std::transform(start, bytes.end(), start,
                 [](std::uint8_t byte) { return static_cast<std::uint8_t>(~byte); });
}

nlmsghdr HeaderOf(const Bytes& message) {
  nlmsghdr header{};
  std::memcpy(&header, message.data(), std::min(sizeof(header), message.size()));
  return header;
}

/// Answers and events of a family have attributes; acknowledgements and ends of dumps have none.
bool HasAttributes(const Bytes& message) {
  return message.size() >= NLMSG_HDRLEN + GENL_HDRLEN && HeaderOf(message).nlmsg_type >= NLMSG_MIN_TYPE;
}

void SetHeader(Bytes& message, nlmsghdr header) {
  header.nlmsg_len = static_cast<std::uint32_t>(message.size());
  std::memcpy(message.data(), &header, sizeof(header));
}

/// One attribute as it stands in a message, its header and padding included, the length it states not yet
/// believed.
void AppendAttribute(Bytes& to, std::uint16_t type, std::size_t statedLength, ByteView value) {
  const nlattr header{static_cast<std::uint16_t>(statedLength), type};
  AppendStruct(to, header);
  to.insert(to.end(), value.begin(), value.end());
  to.resize(NLA_ALIGN(to.size()), 0);
}

void DamageAttributes(Bytes& message, ChangeKind kind) {
  const nlmsghdr header = HeaderOf(message);
  const auto begin = message.begin() + NLMSG_HDRLEN + GENL_HDRLEN;
  const Bytes attributes(begin, message.end());
  Bytes damaged(message.begin(), begin);
  bool isFirst = true;
  for (const auto& [type, value] : ParseAttributes(attributes)) {
    const std::size_t length = NLA_HDRLEN + value.size();
    if (kind == ChangeKind::NestedAttributes) {
      AppendAttribute(damaged, type, NLA_HDRLEN + attributes.size(), attributes);
      break;
    }
    if (kind == ChangeKind::LongAttributes) {
      AppendAttribute(damaged, type, length + message.size(), value);
    } else if (kind == ChangeKind::ShortAttributes) {
      AppendAttribute(damaged, type, NLA_HDRLEN + 1,
                      ByteView(value).first(std::min<std::size_t>(value.size(), 1)));
    } else if (kind == ChangeKind::RepeatedAttributes) {
      Bytes other = value;
      Invert(other, 0);
      AppendAttribute(damaged, type, length, value);
      AppendAttribute(damaged, type, length, other);
    } else if (!isFirst) {
      AppendAttribute(damaged, type, length, value);
    }
    isFirst = false;
  }
  message = std::move(damaged);
  SetHeader(message, header);
}

/// As the kernel marks every message of such a dump.
void MarkInterrupted(Bytes& message) {
  nlmsghdr header = HeaderOf(message);
  if ((header.nlmsg_flags & NLM_F_MULTI) != 0) {
    header.nlmsg_flags |= NLM_F_DUMP_INTR;
    SetHeader(message, header);
  }
}

void SetSequence(Bytes& message, std::uint32_t sequence) {
  if (message.size() >= NLMSG_HDRLEN) {
    std::memcpy(message.data() + offsetof(nlmsghdr, nlmsg_seq), &sequence, sizeof(sequence));
  }
}

void Duplicate(std::vector<Bytes>& messages) {
  std::vector<Bytes> doubled;
  doubled.reserve(messages.size() * 2);
  for (const Bytes& message : messages) {
    doubled.push_back(message);
    doubled.push_back(message);
  }
  messages = std::move(doubled);
}

}  // namespace

Rule ParseRule(std::string_view text) {
  std::vector<std::string_view> words;
  constexpr std::string_view kBlanks = " \t";
  for (std::size_t at = text.find_first_not_of(kBlanks); at != std::string_view::npos;
       at = text.find_first_not_of(kBlanks, at)) {
    const std::size_t end = std::min(text.find_first_of(kBlanks, at), text.size());
    words.push_back(text.substr(at, end - at));
    at = end;
  }
  if (words.empty()) {
    throw std::invalid_argument("a rule begins with a command");
  }
  Rule rule;
  ParseCommand(words.front(), rule);
  for (std::size_t i = 1; i < words.size(); ++i) {
    if (!ParseWord(words[i], rule)) {
      throw std::invalid_argument(fmt::format("'{}' is neither a condition nor an action", words[i]));
    }
  }
  if (!rule.error && !rule.fault && rule.delay.count() == 0 && !rule.unplug && !rule.cross &&
      rule.changes.empty()) {
    throw std::invalid_argument("the rule has no action");
  }
  const bool forEvent =
      rule.family == Occurrence::Family::Nfc && rule.command && IsEventNumber(*rule.command);
  if (forEvent && (rule.error || rule.delay.count() != 0 || rule.cross || rule.unplug ||
                   HasChange(rule, ChangeKind::NoDone) || HasChange(rule, ChangeKind::Interrupted))) {
    throw std::invalid_argument("an event knows no errno, delay, cross, unplug, no-done or interrupted");
  }
  return rule;
}

void ApplyChanges(const std::vector<Change>& changes, Answer& answer) {
  for (const Change& change : changes) {
    switch (change.kind) {
      case ChangeKind::Drop:
        answer.messages.clear();
        break;
      case ChangeKind::Truncate:
        if (!answer.messages.empty() && answer.messages.front().size() > change.value) {
          answer.messages.front().resize(change.value);
        }
        break;
      case ChangeKind::Garble:
        if (!answer.messages.empty()) Invert(answer.messages.front(), NLMSG_HDRLEN + GENL_HDRLEN);
        break;
      case ChangeKind::LongAttributes:
      case ChangeKind::ShortAttributes:
      case ChangeKind::MissingAttribute:
      case ChangeKind::RepeatedAttributes:
      case ChangeKind::NestedAttributes:
        if (!answer.messages.empty() && HasAttributes(answer.messages.front())) {
          DamageAttributes(answer.messages.front(), change.kind);
        }
        break;
      case ChangeKind::Duplicate:
        Duplicate(answer.messages);
        break;
      case ChangeKind::Reverse:
        std::reverse(answer.messages.begin(), answer.messages.end());
        break;
      case ChangeKind::NoDone:
        std::erase_if(answer.messages,
                      [](const Bytes& message) { return HeaderOf(message).nlmsg_type == NLMSG_DONE; });
        break;
      case ChangeKind::Interrupted:
        for (Bytes& message : answer.messages) MarkInterrupted(message);
        break;
      case ChangeKind::Sequence:
        for (Bytes& message : answer.messages) SetSequence(message, change.value);
        break;
      case ChangeKind::Sender:
        answer.sender = change.value;
        break;
      case ChangeKind::Overrun:
        answer.messages.clear();
        answer.overruns = true;
        break;
      case ChangeKind::Close:
        answer.messages.clear();
        answer.closes = true;
        break;
    }
  }
}

std::uint32_t RuleSet::Add(std::string_view text) {
  const std::uint32_t id = mNextId;
  mRules.push_back(Entry{ParseRule(text), RuleStatus{id, std::string(text)}});
  ++mNextId;
  return id;
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
        (rule.command ? *rule.command != occurrence.command : occurrence.isEvent) ||
        (rule.port && *rule.port != occurrence.port) || (rule.device && rule.device != occurrence.device)) {
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

std::string CommandName(std::uint8_t command) {
  for (const CommandInfo& info : kCommands) {
    if (info.number == command) return info.name;
  }
  return std::to_string(command);
}

}  // namespace virtualnfc
