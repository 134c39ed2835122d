#include "tools/virtual-nfc/trace/netlinktext.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "tools/virtual-nfc/kernel/netlinknames.h"
#include "tools/virtual-nfc/trace/valuetext.h"

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
    lines.push_back({depth, std::string(kUndecodable), HexValue(rest), false, std::move(remark)});
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
    TextLine line{depth, AttributeName(schema, header.nla_type), "", isUnpadded, ""};
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
      int number = 0;
      std::from_chars(line.value.data(), line.value.data() + line.value.size(), number);
      line.remark = NameOf(commands, number);
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
      lines.push_back({depth, std::string(kRepeated), "", false, ""});
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

}  // namespace virtualnfc
