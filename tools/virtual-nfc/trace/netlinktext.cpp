#include "tools/virtual-nfc/trace/netlinktext.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "tools/virtual-nfc/kernel/names.h"

namespace virtualnfc {

namespace {

std::string Hex(ByteView bytes) {
  return fmt::format("hex {:02x}", fmt::join(bytes, ""));
}

std::string Quoted(ByteView text) {
  std::string quoted = "\"";
  for (const std::uint8_t byte : text) {
    const bool isPlain = byte >= 0x20 && byte < 0x7F && byte != '"' && byte != '\\';
    quoted += isPlain ? std::string(1, static_cast<char>(byte)) : fmt::format("\\x{:02x}", byte);
  }
  return quoted + '"';
}

/// A value that does not have the form of its kind is shown as bytes.
std::string DescribeValue(ValueKind kind, ByteView value) {
  if (kind == ValueKind::String) {
    const bool isString = !value.empty() && std::find(value.begin(), value.end(), 0) == value.end() - 1;
    return isString ? Quoted(value.first(value.size() - 1)) : Hex(value);
  }
  const std::size_t width = kind == ValueKind::U8 ? 1 : kind == ValueKind::U16 ? 2 : 4;
  if (kind == ValueKind::Hex || kind == ValueKind::Nested || value.size() != width) {
    return Hex(value);
  }
  std::uint32_t number = 0;
  std::memcpy(&number, value.data(), width);
  return kind == ValueKind::Protocols        ? fmt::format("{} ({:#04x})", ProtocolNames(number), number)
         : kind == ValueKind::OperationFlags ? OperationFlagNames(number)
                                             : std::to_string(number);
}

/// The text of one message: its first line, and the lines below it.
class Description {
 public:
  Description(std::uint16_t familyId, std::uint32_t port) : mFamilyId(familyId), mPort(port) {}

  /// @param bytes one message; more, or fewer, bytes when its length is wrong
  std::string Describe(ByteView bytes) {
    const std::string head = DescribeMessage(bytes, kDepth);
    return head + mLines;
  }

 private:
  static constexpr std::size_t kDepth = 3;

  std::string DescribeMessage(ByteView bytes, std::size_t depth) {
    nlmsghdr header{};
    if (bytes.size() < sizeof(header)) {
      AddRest(bytes, depth);
      return "fragment";
    }
    std::memcpy(&header, bytes.data(), sizeof(header));
    const ByteView content = bytes.subspan(NLMSG_HDRLEN);
    const bool isError = header.nlmsg_type == NLMSG_ERROR;
    std::string head = header.nlmsg_type >= NLMSG_MIN_TYPE ? DescribeGeneric(header, content, depth)
                                                           : DescribeControl(header, content, depth);
    if (header.nlmsg_flags != 0) {
      head += " flags=" + MessageFlagNames(header.nlmsg_flags, isError);
    }
    head += fmt::format(" seq={}", header.nlmsg_seq);
    if (header.nlmsg_pid != mPort) {
      head += fmt::format(" pid={}", header.nlmsg_pid);
    }
    if (header.nlmsg_len != bytes.size()) {
      head += fmt::format(" len={}", header.nlmsg_len);
    }
    return head;
  }

  std::string DescribeGeneric(const nlmsghdr& header, ByteView content, std::size_t depth) {
    const bool isController = header.nlmsg_type == GENL_ID_CTRL;
    const bool isNfc = header.nlmsg_type == mFamilyId;
    std::string head = isController ? "nlctrl" : isNfc ? "nfc" : std::to_string(header.nlmsg_type);
    genlmsghdr genl{};
    if (content.size() < sizeof(genl)) {
      AddRest(content, depth);
      return head;
    }
    std::memcpy(&genl, content.data(), sizeof(genl));
    head += " " + CommandName(isController ? Family::Controller
                              : isNfc      ? Family::Nfc
                                           : Family::Unknown,
                              genl.cmd);
    const bool isFamilyAnswer = isController && (header.nlmsg_flags & NLM_F_REQUEST) == 0;
    if (genl.version != (isFamilyAnswer ? 2 : 1)) {
      head += fmt::format(" version={}", genl.version);
    }
    AddAttributes(content.subspan(GENL_HDRLEN),
                  isController ? Scope::Controller
                  : isNfc      ? Scope::Nfc
                               : Scope::Unknown,
                  depth);
    return head;
  }

  /// Errors and ends of dumps begin with a code; an error then repeats the request.
  std::string DescribeControl(const nlmsghdr& header, ByteView content, std::size_t depth) {
    const bool isError = header.nlmsg_type == NLMSG_ERROR;
    std::int32_t code = 0;
    if ((!isError && header.nlmsg_type != NLMSG_DONE) || content.size() < sizeof(code)) {
      AddRest(content, depth);
      return fmt::format("control message {}", header.nlmsg_type);
    }
    std::memcpy(&code, content.data(), sizeof(code));
    content = content.subspan(sizeof(code));
    if (isError && content.size() >= NLMSG_HDRLEN) {
      const std::size_t place = mLines.size();
      const std::string request = DescribeMessage(content, depth + 1);
      mLines.insert(place, fmt::format("\n{:{}}to {}", "", depth * 2, request));
    } else {
      AddRest(content, depth);
    }
    const std::string name = code < 0 ? ErrorName(-code) : std::to_string(code);
    return isError ? code == 0 ? "ack" : "error " + name : code == 0 ? "done" : "done " + name;
  }

  void AddAttributes(ByteView bytes, Scope scope, std::size_t depth) {
    const ByteView rest = ForEachAttribute(bytes, [&](std::uint16_t typeAndFlags, ByteView value) {
      const auto type = static_cast<std::uint16_t>(typeAndFlags & NLA_TYPE_MASK);
      const Attribute* attribute = FindAttribute(scope, type);
      std::string line = attribute == nullptr         ? fmt::format("attribute {}", type)
                         : attribute->name == nullptr ? fmt::format("[{}]", type)
                                                      : attribute->name;
      if (typeAndFlags != type) {
        line += fmt::format(" flags={:#x}", typeAndFlags - type);
      }
      if (attribute != nullptr && attribute->kind == ValueKind::Nested) {
        AddLine(depth, line);
        AddAttributes(value, attribute->inner, depth + 1);
        return;
      }
      const std::string text = DescribeValue(attribute == nullptr ? ValueKind::Hex : attribute->kind, value);
      line += " " + text;
      if (scope == Scope::Controller && type == CTRL_ATTR_FAMILY_NAME) {
        mListed = text == "\"nfc\"" ? Family::Nfc : Family::Controller;
      } else if (scope == Scope::Operation && type == CTRL_ATTR_OP_ID && !value.empty()) {
        line += fmt::format(" ({})", CommandName(mListed, value[0]));
      }
      AddLine(depth, line);
    });
    AddRest(rest, depth);
  }

  void AddRest(ByteView rest, std::size_t depth) {
    if (!rest.empty()) {
      AddLine(depth, "undecodable " + Hex(rest));
    }
  }

  void AddLine(std::size_t depth, const std::string& text) {
    mLines += fmt::format("\n{:{}}{}", "", depth * 2, text);
  }

  const std::uint16_t mFamilyId;
  const std::uint32_t mPort;
  /// The family whose operations a message of the controller lists.
  Family mListed = Family::Unknown;
  std::string mLines;
};

}  // namespace

std::vector<std::string> DescribeDatagram(ByteView datagram, std::uint16_t familyId, std::uint32_t port) {
  std::vector<std::string> messages;
  do {
    std::uint32_t length = 0;
    if (datagram.size() >= NLMSG_HDRLEN) {
      std::memcpy(&length, datagram.data(), sizeof(length));
    }
    const std::size_t aligned = NLMSG_ALIGN(static_cast<std::size_t>(length));
    const bool isWhole = length >= NLMSG_HDRLEN && aligned <= datagram.size();
    const std::size_t extent = isWhole ? aligned : datagram.size();
    messages.push_back(Description(familyId, port).Describe(datagram.first(extent)));
    datagram = datagram.subspan(extent);
  } while (!datagram.empty());
  return messages;
}

}  // namespace virtualnfc
