#include "tools/virtual-nfc/trace/record.h"

#include <fmt/format.h>

#include "tools/virtual-nfc/trace/valuetext.h"

namespace virtualnfc {

namespace {

constexpr std::string_view kHead = "virtual-nfc record 1";
constexpr std::string_view kEventsGroup = "nfc.events";
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

std::string EntryTitle(const RecordEntry& entry, const MessageText& message) {
  const bool isFirst = &message == &entry.messages.front();
  std::string title = fmt::format("#{} {} {}", entry.socket, Arrow(entry.kind, isFirst), message.head);
  if (isFirst && entry.isEvent) title += " group=nfc.events";
  if (isFirst && entry.sender != 0) title += fmt::format(" sender={}", entry.sender);
  if (isFirst && entry.isLost) title += " lost";
  return title;
}

}  // namespace

std::string FormatRecordHead(const NetlinkIds& ids) {
  return fmt::format("{} nfc={} nfc.events={}\n", kHead, ids.family, ids.group);
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

std::string GroupText(std::uint32_t group, const NetlinkIds& ids) {
  return group == ids.group && group != 0 ? std::string(kEventsGroup) : std::to_string(group);
}

}  // namespace virtualnfc
