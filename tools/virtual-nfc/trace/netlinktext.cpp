#include "tools/virtual-nfc/trace/netlinktext.h"

#include <fmt/format.h>
#include <linux/nfc.h>

#include <algorithm>
#include <cstring>

#include "tools/virtual-nfc/kernel/names.h"

namespace virtualnfc {

namespace {

/// One line for each attribute.
std::string DescribeAttributes(ByteView bytes, Family family, const std::string& indent) {
  std::string lines;
  const auto add = [&](const std::string& name, const std::string& value) {
    lines += fmt::format("\n{}{} {}", indent, name, value);
  };
  const auto hex = [](ByteView value) { return fmt::format("hex {:02x}", fmt::join(value, "")); };
  const ByteView rest = ForEachAttribute(bytes, [&](std::uint16_t typeAndFlags, ByteView value) {
    const auto type = static_cast<std::uint16_t>(typeAndFlags & NLA_TYPE_MASK);
    std::string name = AttributeName(family, type);
    if (typeAndFlags != type) {
      name += fmt::format(" flags={:#x}", typeAndFlags - type);
    }
    const bool isText = value.size() > 1 && value.back() == 0 &&
                        std::all_of(value.begin(), value.end() - 1, [](std::uint8_t byte) {
                          return byte >= 0x20 && byte < 0x7F && byte != '"';
                        });
    const bool isUid = family == Family::Nfc && type == NFC_ATTR_TARGET_NFCID1;
    if (isText) {
      add(name, fmt::format("\"{}\"", reinterpret_cast<const char*>(value.data())));
    } else if (!isUid && (value.size() == 1 || value.size() == 2 || value.size() == 4)) {
      std::uint32_t number = 0;
      std::memcpy(&number, value.data(), value.size());
      add(name, fmt::format("{} ({:#0{}x})", number, number, 2 + 2 * value.size()));
    } else {
      add(name, hex(value));
    }
  });
  if (!rest.empty()) {
    add("undecodable", hex(rest));
  }
  return lines;
}

class Description {
 public:
  Description(std::uint16_t familyId, std::uint32_t port) : mFamilyId(familyId), mPort(port) {}

  /// @param bytes one message; more, or fewer, bytes when its length is wrong
  std::string Describe(ByteView bytes, const std::string& indent) {
    nlmsghdr header{};
    if (bytes.size() < sizeof(header)) {
      return "fragment" + DescribeAttributes(bytes, Family::Unknown, indent);
    }
    std::memcpy(&header, bytes.data(), sizeof(header));
    const ByteView content = bytes.subspan(NLMSG_HDRLEN);
    std::string fields;
    if (header.nlmsg_flags != 0) {
      fields += " flags=" + MessageFlagNames(header.nlmsg_flags, header.nlmsg_type == NLMSG_ERROR);
    }
    fields += fmt::format(" seq={}", header.nlmsg_seq);
    if (header.nlmsg_pid != mPort) {
      fields += fmt::format(" pid={}", header.nlmsg_pid);
    }
    if (header.nlmsg_len != bytes.size()) {
      fields += fmt::format(" len={}", header.nlmsg_len);
    }
    return header.nlmsg_type >= NLMSG_MIN_TYPE ? DescribeGeneric(header, fields, content, indent)
                                               : DescribeControl(header, fields, content, indent);
  }

 private:
  std::string DescribeGeneric(const nlmsghdr& header, const std::string& fields, ByteView content,
                              const std::string& indent) const {
    const Family family = header.nlmsg_type == GENL_ID_CTRL ? Family::Controller
                          : header.nlmsg_type == mFamilyId  ? Family::Nfc
                                                            : Family::Unknown;
    const std::string name = family == Family::Controller ? "nlctrl"
                             : family == Family::Nfc      ? "nfc"
                                                          : std::to_string(header.nlmsg_type);
    genlmsghdr genl{};
    if (content.size() < sizeof(genl)) {
      return name + fields + DescribeAttributes(content, Family::Unknown, indent);
    }
    std::memcpy(&genl, content.data(), sizeof(genl));
    const bool isFamilyAnswer = family == Family::Controller && (header.nlmsg_flags & NLM_F_REQUEST) == 0;
    const std::string version =
        genl.version == (isFamilyAnswer ? 2 : 1) ? "" : fmt::format(" version={}", genl.version);
    return fmt::format("{} {}{}{}{}", name, CommandName(family, genl.cmd), version, fields,
                       DescribeAttributes(content.subspan(GENL_HDRLEN), family, indent));
  }

  /// Errors and ends of dumps begin with a code; an error then repeats the request.
  std::string DescribeControl(const nlmsghdr& header, const std::string& fields, ByteView content,
                              const std::string& indent) {
    const bool isError = header.nlmsg_type == NLMSG_ERROR;
    std::int32_t code = 0;
    if ((!isError && header.nlmsg_type != NLMSG_DONE) || content.size() < sizeof(code)) {
      return fmt::format("control message {}{}{}", header.nlmsg_type, fields,
                         DescribeAttributes(content, Family::Unknown, indent));
    }
    std::memcpy(&code, content.data(), sizeof(code));
    content = content.subspan(sizeof(code));
    const std::string name = code < 0 ? ErrorName(-code) : std::to_string(code);
    const std::string head = isError     ? code == 0 ? "ack" : "error " + name
                             : code == 0 ? "done"
                                         : "done " + name;
    return head + fields +
           (isError ? fmt::format("\n{}to {}", indent, Describe(content, indent + "  "))
                    : DescribeAttributes(content, Family::Unknown, indent));
  }

  const std::uint16_t mFamilyId;
  const std::uint32_t mPort;
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
    messages.push_back(Description(familyId, port).Describe(datagram.first(extent), "      "));
    datagram = datagram.subspan(extent);
  } while (!datagram.empty());
  return messages;
}

}  // namespace virtualnfc
