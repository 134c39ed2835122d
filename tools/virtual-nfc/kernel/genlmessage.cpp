#include "tools/virtual-nfc/kernel/genlmessage.h"

#include <cstring>
#include <utility>

namespace virtualnfc {

namespace {

/// The kernel's mark on an answer that does not repeat the whole request.
constexpr std::uint16_t kFlagCapped = 0x100;

/// What fits into the buffer of one part of a dump.
constexpr std::size_t kDumpDatagram = 3776;

/// A message of a dump that is as long as it says; the next one may follow it in the same datagram.
bool MayShareDatagram(const Bytes& message) {
  nlmsghdr header{};
  if (message.size() < sizeof(header)) {
    return false;
  }
  std::memcpy(&header, message.data(), sizeof(header));
  return (header.nlmsg_flags & NLM_F_MULTI) != 0 && header.nlmsg_type != NLMSG_DONE &&
         NLMSG_ALIGN(header.nlmsg_len) == message.size();
}

void Pad(Bytes& bytes) {
  bytes.resize(NLMSG_ALIGN(bytes.size()), 0);
}

}  // namespace

MessageBuilder::MessageBuilder(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence,
                               std::uint32_t port) {
  nlmsghdr header{};
  header.nlmsg_type = type;
  header.nlmsg_flags = flags;
  header.nlmsg_seq = sequence;
  header.nlmsg_pid = port;
  AppendStruct(mBytes, header);
}

MessageBuilder& MessageBuilder::Genl(std::uint8_t command, std::uint8_t version) {
  genlmsghdr header{};
  header.cmd = command;
  header.version = version;
  AppendStruct(mBytes, header);
  return *this;
}

template <typename Value>
MessageBuilder& MessageBuilder::Number(std::uint16_t type, Value value) {
  return Raw(type, ByteView(reinterpret_cast<const std::uint8_t*>(&value), sizeof(value)));
}

MessageBuilder& MessageBuilder::U8(std::uint16_t type, std::uint8_t value) {
  return Number(type, value);
}
MessageBuilder& MessageBuilder::U16(std::uint16_t type, std::uint16_t value) {
  return Number(type, value);
}
MessageBuilder& MessageBuilder::U32(std::uint16_t type, std::uint32_t value) {
  return Number(type, value);
}

MessageBuilder& MessageBuilder::String(std::uint16_t type, std::string_view value) {
  Bytes text(value.begin(), value.end());
  text.push_back(0);
  return Raw(type, text);
}

MessageBuilder& MessageBuilder::Raw(std::uint16_t type, ByteView value) {
  nlattr header{};
  header.nla_type = type;
  header.nla_len = static_cast<std::uint16_t>(NLA_HDRLEN + value.size());
  AppendStruct(mBytes, header);
  return Payload(value);
}

std::size_t MessageBuilder::Begin(std::uint16_t type) {
  const std::size_t begun = mBytes.size();
  nlattr header{};
  header.nla_type = type;
  AppendStruct(mBytes, header);
  return begun;
}

void MessageBuilder::End(std::size_t begun) {
  const auto length = static_cast<std::uint16_t>(mBytes.size() - begun);
  std::memcpy(mBytes.data() + begun, &length, sizeof(length));
}

MessageBuilder& MessageBuilder::Payload(ByteView value) {
  mBytes.insert(mBytes.end(), value.begin(), value.end());
  Pad(mBytes);
  return *this;
}

Bytes MessageBuilder::Finish() {
  const auto length = static_cast<std::uint32_t>(mBytes.size());
  std::memcpy(mBytes.data(), &length, sizeof(length));
  return std::move(mBytes);
}

std::vector<Bytes> SplitMessages(ByteView datagram) {
  std::vector<Bytes> messages;
  while (datagram.size() >= NLMSG_HDRLEN) {
    std::uint32_t length = 0;
    std::memcpy(&length, datagram.data(), sizeof(length));
    if (length < NLMSG_HDRLEN || length > datagram.size()) {
      break;
    }
    messages.emplace_back(datagram.begin(), datagram.begin() + static_cast<std::ptrdiff_t>(length));
    const std::size_t step = NLMSG_ALIGN(static_cast<std::size_t>(length));
    datagram = datagram.subspan(step < datagram.size() ? step : datagram.size());
  }
  return messages;
}

std::map<std::uint16_t, Bytes> ParseAttributes(ByteView attributes) {
  std::map<std::uint16_t, Bytes> parsed;
  while (attributes.size() >= NLA_HDRLEN) {
    nlattr header{};
    std::memcpy(&header, attributes.data(), sizeof(header));
    if (header.nla_len < NLA_HDRLEN || header.nla_len > attributes.size()) {
      break;
    }
    const auto type = static_cast<std::uint16_t>(header.nla_type & NLA_TYPE_MASK);
    const ByteView value = attributes.subspan(NLA_HDRLEN, header.nla_len - NLA_HDRLEN);
    parsed[type] = Bytes(value.begin(), value.end());
    const std::size_t step = NLA_ALIGN(static_cast<std::size_t>(header.nla_len));
    attributes = attributes.subspan(step < attributes.size() ? step : attributes.size());
  }
  return parsed;
}

Request ParseRequest(Bytes message) {
  Request request;
  request.whole = std::move(message);
  const ByteView view(request.whole);
  if (view.size() < NLMSG_HDRLEN) {
    return request;
  }
  std::memcpy(&request.header, view.data(), sizeof(request.header));
  if (view.size() >= NLMSG_HDRLEN + GENL_HDRLEN) {
    request.hasGenlHeader = true;
    std::memcpy(&request.genl, view.data() + NLMSG_HDRLEN, sizeof(request.genl));
    request.attributes = ParseAttributes(view.subspan(NLMSG_HDRLEN + GENL_HDRLEN));
  }
  return request;
}

std::optional<std::uint32_t> GetU32(const std::map<std::uint16_t, Bytes>& attributes, std::uint16_t type) {
  const auto found = attributes.find(type);
  std::uint32_t value = 0;
  if (found == attributes.end() || found->second.size() < sizeof(value)) {
    return std::nullopt;
  }
  std::memcpy(&value, found->second.data(), sizeof(value));
  return value;
}

Bytes MakeErrorMessage(const Request& request, std::uint32_t port, int error) {
  const std::uint16_t flags = error == 0 ? kFlagCapped : std::uint16_t{0};
  MessageBuilder builder(NLMSG_ERROR, flags, request.header.nlmsg_seq, port);
  const int code = -error;
  builder.Payload(ByteView(reinterpret_cast<const std::uint8_t*>(&code), sizeof(code)));
  const ByteView whole(request.whole);
  builder.Payload(error == 0 ? whole.first(NLMSG_HDRLEN) : whole);
  return builder.Finish();
}

Bytes MakeDoneMessage(const Request& request, std::uint32_t port, int error) {
  MessageBuilder builder(NLMSG_DONE, NLM_F_MULTI, request.header.nlmsg_seq, port);
  const int code = -error;
  builder.Payload(ByteView(reinterpret_cast<const std::uint8_t*>(&code), sizeof(code)));
  return builder.Finish();
}

std::vector<Bytes> PackDatagrams(const std::vector<Bytes>& messages) {
  std::vector<Bytes> datagrams;
  bool isOpen = false;
  for (const Bytes& message : messages) {
    const bool mayShare = MayShareDatagram(message);
    if (isOpen && mayShare && datagrams.back().size() + message.size() <= kDumpDatagram) {
      datagrams.back().insert(datagrams.back().end(), message.begin(), message.end());
    } else {
      datagrams.push_back(message);
    }
    isOpen = mayShare;
  }
  return datagrams;
}

}  // namespace virtualnfc
