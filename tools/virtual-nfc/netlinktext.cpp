#include "netlinktext.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "netlinknames.h"
#include "valuetext.h"

namespace virtualnfc {

namespace {

constexpr std::string_view kUndecodable = "undecodable";
constexpr std::string_view kRepeated = "to";
constexpr std::string_view kFragment = "fragment";
constexpr std::string_view kNoCode = "none";

constexpr NamedNumber kControlTypes[] = {
    {NLMSG_NOOP, "noop"}, {NLMSG_ERROR, "error"}, {NLMSG_DONE, "done"}, {NLMSG_OVERRUN, "overrun"}};

bool HasCode(std::uint16_t type) {
  return type == NLMSG_ERROR || type == NLMSG_DONE;
}

/// Whether attributes follow, after a generic-netlink header.
bool IsGeneric(std::uint16_t type) {
  return type > NLMSG_OVERRUN;
}

struct Family {
  std::string name;
  const AttributeSchema& schema;
  std::span<const NamedNumber> commands;
};

Family FamilyOf(std::uint16_t type, const NetlinkIds& ids) {
  if (type == GENL_ID_CTRL) return {"nlctrl", ControllerSchema(), ControllerCommands()};
  if (type == ids.family && type != 0) return {"nfc", NfcSchema(), NfcCommands()};
  return {std::to_string(type), UnknownSchema(), {}};
}

std::uint8_t UsualVersion(const nlmsghdr& header) {
  return header.nlmsg_type == GENL_ID_CTRL && (header.nlmsg_flags & NLM_F_REQUEST) == 0 ? 2 : 1;
}

/// The bytes that belong to the message at the beginning of these.
std::size_t ExtentOf(ByteView bytes) {
  std::uint32_t length = 0;
  std::memcpy(&length, bytes.data(), sizeof(length));
  if (length < NLMSG_HDRLEN || length >= bytes.size()) return bytes.size();
  return std::min<std::size_t>(bytes.size(), NLMSG_ALIGN(length));
}

void DescribeRest(ByteView rest, std::size_t depth, std::string remark, std::vector<TextLine>& lines) {
  if (!rest.empty()) {
    lines.push_back({depth, std::string(kUndecodable), HexValue(rest), false, std::move(remark), 0});
  }
}

/// @returns what is left where the attributes cannot be told apart any more
ByteView DescribeAttributes(ByteView bytes, const AttributeSchema& schema, const NetlinkIds& ids,
                            std::size_t depth, std::vector<TextLine>& lines) {
  while (bytes.size() >= NLA_HDRLEN) {
    nlattr header{};
    std::memcpy(&header, bytes.data(), sizeof(header));
    if (header.nla_len < NLA_HDRLEN || header.nla_len > bytes.size()) break;
    const std::size_t step = NLA_ALIGN(std::size_t{header.nla_len});
    const bool isUnpadded = step > bytes.size();
    const ByteView padding = isUnpadded ? ByteView{} : bytes.subspan(header.nla_len, step - header.nla_len);
    if (std::any_of(padding.begin(), padding.end(), [](std::uint8_t byte) { return byte != 0; })) break;

    const ByteView value = bytes.subspan(NLA_HDRLEN, header.nla_len - NLA_HDRLEN);
    const AttributeInfo* info = FindAttribute(schema, header.nla_type);
    TextLine line{depth, AttributeName(schema, header.nla_type), "", isUnpadded, "", 0};
    std::vector<TextLine> inner;
    const bool isNested = info != nullptr && info->kind == ValueKind::Nested;
    if (isNested && DescribeAttributes(value, *info->nested, ids, depth + 1, inner).empty() &&
        std::none_of(inner.begin(), inner.end(), [](const TextLine& one) { return one.isUnpadded; })) {
      lines.push_back(std::move(line));
      lines.insert(lines.end(), inner.begin(), inner.end());
    } else {
      line.value = DescribeValue(info == nullptr ? ValueKind::Hex : info->kind, value, ids, line.remark);
      lines.push_back(std::move(line));
    }
    bytes = bytes.subspan(isUnpadded ? header.nla_len : step);
  }
  return bytes;
}

/// A list of operations has numbers only; the reader wants to know which commands they are.
void NameOperations(std::vector<TextLine>& lines) {
  std::span<const NamedNumber> commands;
  for (TextLine& line : lines) {
    if (line.name == "CTRL_ATTR_FAMILY_NAME") {
      commands = line.value == "\"nfc\"" ? NfcCommands() : std::span<const NamedNumber>{};
    } else if (line.name == "CTRL_ATTR_OP_ID" && !commands.empty()) {
      line.remark = NameOf(commands, static_cast<int>(ParseUnsigned(line.value).value_or(0)));
    }
  }
}

std::string DescribeMessage(ByteView bytes, const NetlinkIds& ids, bool isEvent, std::size_t depth,
                            std::vector<TextLine>& lines) {
  if (bytes.size() < NLMSG_HDRLEN) {
    DescribeRest(bytes, depth, "", lines);
    return std::string(kFragment);
  }
  nlmsghdr header{};
  std::memcpy(&header, bytes.data(), sizeof(header));
  ByteView content = bytes.subspan(NLMSG_HDRLEN);
  std::string head;
  genlmsghdr genl{};
  genl.version = UsualVersion(header);
  const Family family = FamilyOf(header.nlmsg_type, ids);
  std::string remark;
  if (HasCode(header.nlmsg_type)) {
    head = NameOf(kControlTypes, header.nlmsg_type);
    std::int32_t code = 0;
    if (content.size() < sizeof(code)) {
      head += fmt::format(" {}", kNoCode);
    } else {
      std::memcpy(&code, content.data(), sizeof(code));
      content = content.subspan(sizeof(code));
      if (code != 0) {
        head += " " + DescribeCode(code);
      } else if (header.nlmsg_type == NLMSG_ERROR) {
        head = "ack";
      }
    }
    if (header.nlmsg_type == NLMSG_ERROR && content.size() >= NLMSG_HDRLEN) {
      const std::size_t place = lines.size();
      lines.push_back({depth, std::string(kRepeated), "", false, "", 0});
      const std::size_t extent = ExtentOf(content);
      std::string repeated = DescribeMessage(content.first(extent), ids, false, depth + 1, lines);
      lines[place].value = std::move(repeated);
      content = content.subspan(extent);
    }
  } else if (!IsGeneric(header.nlmsg_type)) {
    head = NameOf(kControlTypes, header.nlmsg_type);
  } else {
    head = family.name;
    if (content.size() >= GENL_HDRLEN) {
      std::memcpy(&genl, content.data(), sizeof(genl));
      head += " " + NameOf(family.commands, genl.cmd);
      content = DescribeAttributes(content.subspan(GENL_HDRLEN), family.schema, ids, depth, lines);
      if (content.size() >= NLA_HDRLEN) {
        std::uint16_t length = 0;
        std::memcpy(&length, content.data(), sizeof(length));
        remark = fmt::format("an attribute says it has {} bytes, {} are left", length, content.size());
      }
    }
  }
  DescribeRest(content, depth, remark, lines);
  NameOperations(lines);

  if (header.nlmsg_flags != 0) {
    head += " flags=" + BitNames(MessageFlags(header.nlmsg_type == NLMSG_ERROR), header.nlmsg_flags);
  }
  head += fmt::format(" seq={}", header.nlmsg_seq);
  if (header.nlmsg_pid != (isEvent ? 0 : ids.port)) head += fmt::format(" pid={}", header.nlmsg_pid);
  if (genl.version != UsualVersion(header)) head += fmt::format(" version={}", genl.version);
  if (genl.reserved != 0) head += fmt::format(" reserved={}", genl.reserved);
  if (header.nlmsg_len != bytes.size()) head += fmt::format(" len={}", header.nlmsg_len);
  return head;
}

// --- text to bytes ---

/// The lines of one message, taken one after the other.
class Lines {
 public:
  explicit Lines(std::span<const TextLine> lines) : mLeft(lines) {}

  /// The next line if it has this depth; null when there is none. @throws RecordError when it is deeper
  const TextLine* Next(std::size_t depth) {
    if (mLeft.empty() || mLeft.front().depth < depth) return nullptr;
    if (mLeft.front().depth > depth) {
      throw RecordError(mLeft.front().number, fmt::format("'{}' stands too deep", mLeft.front().name));
    }
    const TextLine* line = &mLeft.front();
    mLeft = mLeft.subspan(1);
    return line;
  }

 private:
  std::span<const TextLine> mLeft;
};

void BuildAttributes(Lines& lines, std::size_t depth, const AttributeSchema& schema, const NetlinkIds& ids,
                     Bytes& bytes) {
  while (const TextLine* line = lines.Next(depth)) {
    if (line->name == kUndecodable) {
      const Bytes rest = BuildValue(ValueKind::Hex, line->value, ids, line->number);
      bytes.insert(bytes.end(), rest.begin(), rest.end());
      continue;
    }
    const auto type = ParseAttributeName(schema, line->name);
    if (!type) throw RecordError(line->number, fmt::format("unknown attribute '{}'", line->name));
    const AttributeInfo* info = FindAttribute(schema, *type);
    Bytes value;
    if (info != nullptr && info->kind == ValueKind::Nested && line->value.empty()) {
      BuildAttributes(lines, depth + 1, *info->nested, ids, value);
    } else {
      value = BuildValue(info == nullptr ? ValueKind::Hex : info->kind, line->value, ids, line->number);
    }
    if (value.size() > 0xFFFF - NLA_HDRLEN) throw RecordError(line->number, "the attribute is too long");
    AppendStruct(bytes, static_cast<std::uint16_t>(NLA_HDRLEN + value.size()));
    AppendStruct(bytes, *type);
    bytes.insert(bytes.end(), value.begin(), value.end());
    if (!line->isUnpadded) bytes.resize(NLA_ALIGN(bytes.size()), 0);
  }
}

/// A head, taken apart.
class Head {
 public:
  Head(std::string_view text, const NetlinkIds& ids, bool isEvent, std::size_t line) : mLine(line) {
    const std::vector<std::string_view> words = SplitWords(text);
    std::size_t at = 0;
    const std::string_view kind = words.empty() ? "" : words[at++];
    const bool hasPlain = at < words.size() && words[at].find('=') == std::string_view::npos;
    ReadKind(kind, hasPlain ? words[at++] : "", ids);
    header.nlmsg_pid = isEvent ? 0 : ids.port;
    // The flags decide on the usual version.
    std::optional<std::uint32_t> version;
    for (; at < words.size(); ++at) {
      const std::size_t equals = words[at].find('=');
      const std::string_view key = words[at].substr(0, equals);
      const std::string_view value = equals == std::string_view::npos ? "" : words[at].substr(equals + 1);
      if (key == "flags") {
        const auto flags = ParseBitNames(MessageFlags(header.nlmsg_type == NLMSG_ERROR), value);
        header.nlmsg_flags = static_cast<std::uint16_t>(Checked(words[at], flags, 0xFFFF));
      } else if (key == "seq") {
        header.nlmsg_seq = Checked(words[at], ParseUnsigned(value));
      } else if (key == "pid") {
        header.nlmsg_pid = Checked(words[at], ParseUnsigned(value));
      } else if (key == "version") {
        version = Checked(words[at], ParseUnsigned(value), 0xFF);
      } else if (key == "reserved") {
        genl.reserved = static_cast<std::uint16_t>(Checked(words[at], ParseUnsigned(value), 0xFFFF));
      } else if (key == "len") {
        length = Checked(words[at], ParseUnsigned(value));
      } else {
        throw RecordError(line, fmt::format("'{}' is out of place", words[at]));
      }
    }
    genl.version = version ? static_cast<std::uint8_t>(*version) : UsualVersion(header);
  }

  bool isFragment = false;
  nlmsghdr header{};
  std::optional<std::int32_t> code;
  bool hasGenl = false;
  genlmsghdr genl{};
  std::optional<std::uint32_t> length;

 private:
  std::uint32_t Checked(std::string_view word, std::optional<std::uint32_t> value,
                        std::uint32_t max = 0xFFFFFFFF) const {
    if (!value || *value > max) throw RecordError(mLine, fmt::format("'{}' cannot be understood", word));
    return *value;
  }

  void ReadKind(std::string_view kind, std::string_view word, const NetlinkIds& ids) {
    isFragment = kind == kFragment;
    if (isFragment && word.empty()) return;
    if (kind == "ack" && word.empty()) {
      header.nlmsg_type = NLMSG_ERROR;
      code = 0;
      return;
    }
    std::optional<std::uint32_t> type = kind == "nlctrl" ? std::optional<std::uint32_t>(GENL_ID_CTRL)
                                        : kind == "nfc"  ? std::optional<std::uint32_t>(ids.family)
                                                         : ParseUnsigned(kind, 0xFFFF);
    for (const NamedNumber& control : kControlTypes) {
      if (kind == control.name) type = static_cast<std::uint32_t>(control.number);
    }
    if (!type) throw RecordError(mLine, fmt::format("'{}' is no family and no kind of message", kind));
    header.nlmsg_type = static_cast<std::uint16_t>(*type);
    if (HasCode(header.nlmsg_type)) {
      if (word != kNoCode) code = word.empty() ? 0 : BuildCode(word, mLine);
    } else if (IsGeneric(header.nlmsg_type) && !word.empty()) {
      const auto command = NumberOf(FamilyOf(header.nlmsg_type, ids).commands, word);
      if (!command || *command < 0 || *command > 0xFF) {
        throw RecordError(mLine, fmt::format("'{}' is no command of '{}'", word, kind));
      }
      hasGenl = true;
      genl.cmd = static_cast<std::uint8_t>(*command);
    } else if (!word.empty()) {
      throw RecordError(mLine, fmt::format("'{}' is out of place", word));
    }
  }

  std::size_t mLine;
};

Bytes BuildMessage(std::string_view text, std::size_t number, Lines& lines, std::size_t depth,
                   const NetlinkIds& ids, bool isEvent) {
  const Head head(text, ids, isEvent, number);
  Bytes bytes;
  if (!head.isFragment) AppendStruct(bytes, head.header);
  if (head.code) AppendStruct(bytes, *head.code);
  if (head.hasGenl) {
    AppendStruct(bytes, head.genl);
    BuildAttributes(lines, depth, FamilyOf(head.header.nlmsg_type, ids).schema, ids, bytes);
  }
  while (const TextLine* line = lines.Next(depth)) {
    Bytes part;
    if (line->name == kRepeated && head.header.nlmsg_type == NLMSG_ERROR) {
      part = BuildMessage(line->value, line->number, lines, depth + 1, ids, false);
    } else if (line->name == kUndecodable) {
      part = BuildValue(ValueKind::Hex, line->value, ids, line->number);
    } else {
      throw RecordError(line->number, fmt::format("'{}' is out of place", line->name));
    }
    bytes.insert(bytes.end(), part.begin(), part.end());
  }
  if (!head.isFragment) {
    const std::uint32_t length = head.length.value_or(static_cast<std::uint32_t>(bytes.size()));
    std::memcpy(bytes.data(), &length, sizeof(length));
  }
  return bytes;
}

}  // namespace

std::vector<MessageText> DescribeDatagram(ByteView datagram, const NetlinkIds& ids, bool isEvent) {
  std::vector<MessageText> messages;
  do {
    const std::size_t extent = datagram.size() < NLMSG_HDRLEN ? datagram.size() : ExtentOf(datagram);
    MessageText& message = messages.emplace_back();
    message.head = DescribeMessage(datagram.first(extent), ids, isEvent, 0, message.lines);
    datagram = datagram.subspan(extent);
  } while (!datagram.empty());
  return messages;
}

Bytes BuildDatagram(std::span<const MessageText> messages, const NetlinkIds& ids, bool isEvent) {
  Bytes datagram;
  for (const MessageText& message : messages) {
    Lines lines(message.lines);
    const Bytes bytes = BuildMessage(message.head, message.number, lines, 0, ids, isEvent);
    datagram.insert(datagram.end(), bytes.begin(), bytes.end());
  }
  return datagram;
}

std::vector<std::string_view> SplitWords(std::string_view text) {
  std::vector<std::string_view> words;
  for (std::size_t at = text.find_first_not_of(' '); at != std::string_view::npos;
       at = text.find_first_not_of(' ', at)) {
    const std::size_t end = std::min(text.find(' ', at), text.size());
    words.push_back(text.substr(at, end - at));
    at = end;
  }
  return words;
}

}  // namespace virtualnfc
