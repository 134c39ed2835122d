#include "record.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <stdexcept>

#include "netlinknames.h"
#include "rules.h"
#include "tag.h"
#include "valuetext.h"
#include "wire.h"

namespace virtualnfc {

namespace {

constexpr std::string_view kHead = "virtual-nfc record 1";
constexpr std::string_view kEventsGroup = "nfc.events";
constexpr std::string_view kEventWord = "group=nfc.events";
constexpr std::string_view kLostWord = "lost";
constexpr std::string_view kSenderKey = "sender=";
/// Before the lines of a message; two more for each level.
constexpr std::size_t kIndentation = 6;

constexpr struct {
  EntryKind kind;
  const char* word;
} kSocketWords[] = {{EntryKind::Open, "open"},   {EntryKind::Port, "port"},     {EntryKind::Join, "join"},
                    {EntryKind::Leave, "leave"}, {EntryKind::Signal, "signal"}, {EntryKind::Close, "close"}};

/// A further message of the same datagram has another arrow.
const char* Arrow(EntryKind kind, bool isFirst) {
  return kind == EntryKind::Request ? (isFirst ? "->" : "+>") : (isFirst ? "<-" : "<+");
}

std::string FormatLine(const TextLine& line) {
  std::string text(kIndentation + 2 * line.depth, ' ');
  text += line.name;
  if (!line.value.empty()) text += " " + line.value;
  if (line.isUnpadded) text += " unpadded";
  if (!line.remark.empty()) text += fmt::format(" ({})", line.remark);
  return text + "\n";
}

/// Removes the ending, if it is there.
bool TakeEnding(std::string_view& text, std::string_view ending) {
  if (!text.ends_with(ending)) return false;
  text.remove_suffix(ending.size());
  return true;
}

TextLine ParseLine(std::string_view text, std::size_t number) {
  const std::size_t blanks = text.find_first_not_of(' ');
  if (blanks < kIndentation || (blanks - kIndentation) % 2 != 0) {
    throw RecordError(
        number, fmt::format("indented by {} instead of {} and two for each level", blanks, kIndentation));
  }
  text.remove_prefix(blanks);
  TextLine line;
  line.number = number;
  line.depth = (blanks - kIndentation) / 2;
  const std::size_t end = std::min(text.find(' '), text.size());
  line.name = text.substr(0, end);
  std::string_view value = text.substr(std::min(end + 1, text.size()));
  std::size_t valueEnd = value.starts_with('"') ? EndOfString(value) : 0;
  std::string_view rest = value.substr(valueEnd);
  if (const std::size_t remark = rest.find('('); remark != std::string_view::npos && rest.ends_with(')')) {
    line.remark = rest.substr(remark + 1, rest.size() - remark - 2);
    rest = rest.substr(0, remark);
    TakeEnding(rest, " ");
  }
  line.isUnpadded = TakeEnding(rest, "unpadded");
  if (line.isUnpadded) TakeEnding(rest, " ");
  line.value = value.substr(0, valueEnd + rest.size());
  return line;
}

std::chrono::milliseconds ParseTime(std::string_view text, std::size_t number) {
  const std::size_t point = text.find('.');
  const auto seconds = ParseUnsigned(text.substr(0, point));
  const auto fraction =
      point == std::string_view::npos ? std::nullopt : ParseUnsigned(text.substr(point + 1), 999);
  if (!seconds || !fraction || text.size() - point != 4) {
    throw RecordError(number, fmt::format("begins with '{}' instead of a time like 1.250", text));
  }
  return std::chrono::seconds(*seconds) + std::chrono::milliseconds(*fraction);
}

/// What can be asked of a server again. @throws std::invalid_argument
void CheckReaderWords(const std::vector<std::string_view>& words) {
  const auto is = [&](std::size_t count, std::string_view first) {
    return words.size() == count && words[0] == first;
  };
  if (is(3, "tap")) {
    (void)MakeTag(ParseTagKind(words[1]), words[2]);
  } else if (words.size() > 2 && words[0] == "rule" && words[1] == "add") {
    const std::string rule = fmt::format("{}", fmt::join(words.begin() + 2, words.end(), " "));
    (void)ParseRule(ReplacePort(rule, [](std::string_view port) {
      return port.starts_with('#') ? std::string(port.substr(1)) : std::string(port);
    }));
  } else if (!(is(1, "remove") || (is(2, "rule") && words[1] == "clear") ||
               (is(4, "fault") && (words[2] == "on" || words[2] == "off") && ParseUnsigned(words[3], 255)) ||
               ((is(2, "plug") || is(2, "unplug")) && ParseUnsigned(words[1], 255)))) {
    throw std::invalid_argument(
        fmt::format("'{}' is nothing that happens at a reader", fmt::join(words, " ")));
  }
}

/// Takes the words of the datagram off the head of its first message.
void ParseDatagramWords(RecordEntry& entry) {
  std::string head;
  for (const std::string_view word : SplitWords(entry.messages.front().head)) {
    if (word == kEventWord) {
      entry.isEvent = true;
    } else if (word == kLostWord) {
      entry.isLost = true;
    } else if (word.starts_with(kSenderKey)) {
      const auto sender = ParseUnsigned(word.substr(kSenderKey.size()));
      if (!sender) throw RecordError(entry.number, fmt::format("'{}' cannot be understood", word));
      entry.sender = *sender;
    } else {
      head += (head.empty() ? "" : " ") + std::string(word);
    }
  }
  entry.messages.front().head = std::move(head);
}

class Parser {
 public:
  Record Parse(std::string_view text) {
    while (!text.empty()) {
      const std::size_t end = text.find('\n');
      if (end == std::string_view::npos) throw RecordError(mNumber + 1, "the line is cut off");
      ++mNumber;
      ParseTextLine(text.substr(0, end));
      text.remove_prefix(end + 1);
    }
    if (mNumber == 0) throw RecordError(1, "empty");
    FinishEntry();
    return std::move(mRecord);
  }

 private:
  void ParseTextLine(std::string_view line) {
    if (mNumber == 1) {
      ParseHead(line);
    } else if (line.empty() || line.starts_with('#')) {
      return;
    } else if (line.starts_with(' ')) {
      if (mEntry.messages.empty()) throw RecordError(mNumber, "belongs to no message");
      mEntry.messages.back().lines.push_back(ParseLine(line, mNumber));
    } else {
      ParseEntryLine(line);
    }
  }

  void ParseHead(std::string_view line) {
    const std::vector<std::string_view> words = SplitWords(line);
    const auto family = words.size() == 5 && words[3].starts_with("nfc=")
                            ? ParseUnsigned(words[3].substr(4), 0xFFFF)
                            : std::nullopt;
    const auto group = words.size() == 5 && words[4].starts_with("nfc.events=")
                           ? ParseUnsigned(words[4].substr(11))
                           : std::nullopt;
    if (!line.starts_with(kHead) || !family || !group) {
      throw RecordError(mNumber, fmt::format("no record: begins with '{}' instead of '{} nfc=N nfc.events=N'",
                                             line.substr(0, 40), kHead));
    }
    mRecord.ids.family = static_cast<std::uint16_t>(*family);
    mRecord.ids.group = *group;
  }

  void ParseEntryLine(std::string_view line) {
    const std::vector<std::string_view> words = SplitWords(line);
    const std::chrono::milliseconds time = ParseTime(words[0], mNumber);
    if (words.size() >= 3 && (words[2] == "+>" || words[2] == "<+")) {
      // The datagram goes on.
      const std::string_view before = mEntry.messages.empty() ? "" : Arrow(mEntry.kind, false);
      if (words[2] != before || words[1] != fmt::format("#{}", mEntry.socket)) {
        throw RecordError(mNumber, fmt::format("'{}' goes on with no datagram", words[2]));
      }
      mEntry.messages.push_back(
          {fmt::format("{}", fmt::join(words.begin() + 3, words.end(), " ")), {}, mNumber});
      return;
    }
    FinishEntry();
    if (!mRecord.entries.empty() && time < mRecord.entries.back().time) {
      throw RecordError(mNumber, "the time runs backwards");
    }
    mEntry.time = time;
    mEntry.number = mNumber;
    if (words.size() >= 3 && words[1].starts_with('#')) {
      ParseSocketEntry(words);
      return;
    }
    try {
      CheckReaderWords({words.begin() + 1, words.end()});
    } catch (const std::invalid_argument& error) {
      throw RecordError(mNumber, error.what());
    }
    mEntry.kind = EntryKind::Reader;
    mEntry.words = fmt::format("{}", fmt::join(words.begin() + 1, words.end(), " "));
    mHasEntry = true;
  }

  void ParseSocketEntry(const std::vector<std::string_view>& words) {
    const auto socket = ParseUnsigned(words[1].substr(1));
    if (!socket || *socket == 0) throw RecordError(mNumber, fmt::format("'{}' is no socket", words[1]));
    mEntry.socket = *socket;
    const bool isOpen = mPorts.contains(*socket);
    if (isOpen == (words[2] == "open")) {
      throw RecordError(mNumber,
                        fmt::format("socket {} is {}", words[1], isOpen ? "open already" : "not open"));
    }
    mHasEntry = true;
    if (words[2] == "->" || words[2] == "<-") {
      mEntry.kind = words[2] == "->" ? EntryKind::Request : EntryKind::Delivery;
      mEntry.messages.push_back(
          {fmt::format("{}", fmt::join(words.begin() + 3, words.end(), " ")), {}, mNumber});
      if (mEntry.kind == EntryKind::Delivery) ParseDatagramWords(mEntry);
      return;
    }
    const auto* known = std::find_if(std::begin(kSocketWords), std::end(kSocketWords),
                                     [&](const auto& one) { return words[2] == one.word; });
    if (known == std::end(kSocketWords))
      throw RecordError(mNumber, fmt::format("unknown word '{}'", words[2]));
    mEntry.kind = known->kind;
    const bool hasGroup = known->kind == EntryKind::Join || known->kind == EntryKind::Leave;
    const bool hasError = known->kind == EntryKind::Join && words.size() == 5;
    if (words.size() != (hasGroup || known->kind == EntryKind::Port ? 4U : 3U) + (hasError ? 1U : 0U)) {
      throw RecordError(mNumber, fmt::format("'{}' has too few words or too many", words[2]));
    }
    if (hasGroup) {
      (void)GroupNumber(words[3], mRecord.ids, mNumber);
      mEntry.words = words[3];
      mEntry.error = hasError ? -BuildCode(words[4], mNumber) : 0;
    } else if (known->kind == EntryKind::Port) {
      const auto port = ParseUnsigned(words[3]);
      if (!port) throw RecordError(mNumber, fmt::format("'{}' is no port", words[3]));
      mEntry.port = *port;
      mPorts[mEntry.socket] = *port;
    } else if (known->kind == EntryKind::Open) {
      mPorts[mEntry.socket] = 0;
    } else if (known->kind == EntryKind::Close) {
      mPorts.erase(mEntry.socket);
    }
  }

  void FinishEntry() {
    if (mHasEntry) {
      if (!mEntry.messages.empty()) {
        NetlinkIds ids = mRecord.ids;
        ids.port = mPorts[mEntry.socket];
        if (BuildDatagram(mEntry.messages, ids, mEntry.isEvent).size() > wire::kMaxMessage) {
          throw RecordError(mEntry.number, "the datagram is too long");
        }
      }
      mRecord.entries.push_back(std::move(mEntry));
    }
    mEntry = {};
    mHasEntry = false;
  }

  Record mRecord;
  RecordEntry mEntry;
  bool mHasEntry = false;
  /// Of the sockets that are open.
  std::map<std::uint32_t, std::uint32_t> mPorts;
  std::size_t mNumber = 0;
};

}  // namespace

std::string FormatRecordHead(const NetlinkIds& ids) {
  return fmt::format("{} nfc={} nfc.events={}\n", kHead, ids.family, ids.group);
}

std::string EntryTitle(const RecordEntry& entry, const MessageText& message) {
  const bool isFirst = &message == &entry.messages.front();
  std::string title = fmt::format("#{} {} {}", entry.socket, Arrow(entry.kind, isFirst), message.head);
  if (isFirst && entry.isEvent) title += fmt::format(" {}", kEventWord);
  if (isFirst && entry.sender != 0) title += fmt::format(" {}{}", kSenderKey, entry.sender);
  if (isFirst && entry.isLost) title += fmt::format(" {}", kLostWord);
  return title;
}

std::string FormatEntry(const RecordEntry& entry) {
  const std::string time = fmt::format("{}.{:03}", entry.time.count() / 1000, entry.time.count() % 1000);
  if (entry.words.starts_with('#')) return entry.words + "\n";
  if (entry.kind == EntryKind::Reader) return fmt::format("{} {}\n", time, entry.words);
  std::string text;
  for (const MessageText& message : entry.messages) {
    text += fmt::format("{} {}\n", time, EntryTitle(entry, message));
    for (const TextLine& line : message.lines) text += FormatLine(line);
  }
  for (const auto& known : kSocketWords) {
    if (known.kind != entry.kind) continue;
    text = fmt::format("{} #{} {}", time, entry.socket, known.word);
    if (entry.kind == EntryKind::Port) text += fmt::format(" {}", entry.port);
    if (!entry.words.empty()) text += " " + entry.words;
    if (entry.error != 0) text += " " + DescribeCode(-entry.error);
    text += "\n";
  }
  return text;
}

Record ParseRecord(std::string_view text) {
  return Parser().Parse(text);
}

std::string GroupText(std::uint32_t group, const NetlinkIds& ids) {
  return group == ids.group && group != 0 ? std::string(kEventsGroup) : std::to_string(group);
}

std::string ReplacePort(std::string_view words, const std::function<std::string(std::string_view)>& replace) {
  constexpr std::string_view kKey = " port=";
  const std::size_t at = words.find(kKey);
  if (at == std::string_view::npos) return std::string(words);
  const std::size_t begin = at + kKey.size();
  const std::size_t end = std::min(words.find(' ', begin), words.size());
  return fmt::format("{}{}{}", words.substr(0, begin), replace(words.substr(begin, end - begin)),
                     words.substr(end));
}

std::uint32_t GroupNumber(std::string_view text, const NetlinkIds& ids, std::size_t line) {
  const auto number = text == kEventsGroup ? std::optional(ids.group) : ParseUnsigned(text);
  if (!number) throw RecordError(line, fmt::format("'{}' is no group", text));
  return *number;
}

}  // namespace virtualnfc
