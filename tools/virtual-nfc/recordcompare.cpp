#include "recordcompare.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

namespace virtualnfc {

namespace {

constexpr std::string_view kRepeated = "to";

/// The words of a head: what the message is, and each KEY=VALUE.
struct HeadWords {
  std::string kind;
  std::map<std::string, std::string, std::less<>> values;
};

HeadWords TakeApart(std::string_view head) {
  HeadWords taken;
  for (const std::string_view word : SplitWords(head)) {
    const std::size_t equals = word.find('=');
    if (equals == std::string_view::npos) {
      taken.kind += (taken.kind.empty() ? "" : " ") + std::string(word);
    } else {
      taken.values.emplace(word.substr(0, equals), word.substr(equals + 1));
    }
  }
  return taken;
}

void CompareHeads(std::size_t line, std::string_view where, std::string_view recorded, std::string_view now,
                  std::vector<Difference>& found) {
  const HeadWords before = TakeApart(recorded);
  const HeadWords after = TakeApart(now);
  if (before.kind != after.kind) {
    found.push_back({line, fmt::format("{}'{}', recorded '{}'", where, after.kind, before.kind)});
  }
  std::map<std::string, std::string, std::less<>> keys = before.values;
  keys.insert(after.values.begin(), after.values.end());
  for (const auto& [key, value] : keys) {
    const auto valueIn = [&key = key](const HeadWords& words) {
      const auto known = words.values.find(key);
      return known != words.values.end() ? known->second : key == "flags" ? "0" : "as usual";
    };
    if (valueIn(before) != valueIn(after)) {
      found.push_back(
          {line, fmt::format("{}{} is {}, recorded {}", where, key, valueIn(after), valueIn(before))});
    }
  }
}

std::string InWords(const TextLine& line) {
  return line.value.empty() ? line.name : fmt::format("{} {}", line.name, line.value);
}

/// How many lines from this one on are this one and what is nested in it.
std::size_t LengthOf(std::span<const TextLine> lines) {
  std::size_t length = 1;
  while (length < lines.size() && lines[length].depth > lines.front().depth) ++length;
  return length;
}

void CompareLines(std::size_t number, std::span<const TextLine> recorded, std::span<const TextLine> now,
                  std::vector<Difference>& found) {
  const auto tooMany = [&](std::size_t count) {
    while (count > 0) {
      const std::size_t length = LengthOf(now);
      found.push_back({number, fmt::format("{} is not recorded", InWords(now.front()))});
      now = now.subspan(length);
      count -= std::min(count, length);
    }
  };
  while (!recorded.empty()) {
    const TextLine& line = recorded.front();
    number = line.number;
    // The same attribute further on in the same nest.
    std::size_t at = 0;
    while (at < now.size() && now[at].depth >= line.depth &&
           (now[at].depth != line.depth || now[at].name != line.name)) {
      ++at;
    }
    if (at == now.size() || now[at].depth < line.depth) {
      found.push_back({number, fmt::format("{} is missing", InWords(line))});
      recorded = recorded.subspan(LengthOf(recorded));
      continue;
    }
    tooMany(at);
    const TextLine& other = now.front();
    if (line.name == kRepeated) {
      CompareHeads(number, "to ", line.value, other.value, found);
    } else if (line.value != other.value) {
      found.push_back({number, fmt::format("{} is {}, recorded {}", line.name,
                                           other.value.empty() ? "nested" : other.value,
                                           line.value.empty() ? "nested" : line.value)});
    }
    if (line.isUnpadded != other.isUnpadded) {
      found.push_back({number, fmt::format("{} has {} padding", line.name, other.isUnpadded ? "no" : "now")});
    }
    recorded = recorded.subspan(1);
    now = now.subspan(1);
  }
  tooMany(now.size());
}

}  // namespace

std::string KindOfMessage(const MessageText& message) {
  const std::string kind = TakeApart(message.head).kind;
  const std::string first = kind.substr(0, kind.find(' '));
  return first == "ack" || first == "error" ? "answer" : first == "done" ? first : kind;
}

std::vector<Difference> CompareMessages(const MessageText& recorded, const MessageText& now) {
  std::vector<Difference> found;
  CompareHeads(recorded.number, "", recorded.head, now.head, found);
  CompareLines(recorded.number, recorded.lines, now.lines, found);
  return found;
}

std::vector<Difference> CompareDatagrams(std::span<const MessageText> recorded,
                                         std::span<const MessageText> now) {
  std::vector<Difference> found;
  for (std::size_t i = 0; i < std::max(recorded.size(), now.size()); ++i) {
    if (i >= now.size()) {
      found.push_back({recorded[i].number, "the message is not in the datagram"});
    } else if (i >= recorded.size()) {
      found.push_back({recorded.back().number, fmt::format("the datagram goes on with '{}'", now[i].head)});
    } else {
      const std::vector<Difference> more = CompareMessages(recorded[i], now[i]);
      found.insert(found.end(), more.begin(), more.end());
    }
  }
  return found;
}

}  // namespace virtualnfc
