#include "tools/virtual-nfc/kernel/genlmessage.h"

#include <algorithm>
#include <utility>

namespace virtualnfc {

namespace {

/// What fits into the buffer of one part of a dump.
constexpr std::size_t kDumpDatagram = 3776;

/// Whether the next message of a dump may follow in the same datagram: this one is as long as it says.
bool MayShareDatagram(const Bytes& message) {
  const nlmsghdr header = ParseRequest(message).header;
  return (header.nlmsg_flags & NLM_F_MULTI) != 0 && header.nlmsg_type != NLMSG_DONE &&
         NLMSG_ALIGN(header.nlmsg_len) == message.size();
}

/// Removes the first bytes, or all when there are fewer.
ByteView Skip(ByteView bytes, std::size_t count) {
  return bytes.subspan(std::min(count, bytes.size()));
}

}  // namespace

MessageBuilder::MessageBuilder(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence,
                               std::uint32_t port) {
  Payload(BytesOf(nlmsghdr{0, type, flags, sequence, port}));
}

MessageBuilder& MessageBuilder::Genl(std::uint8_t command, std::uint8_t version) {
  return Payload(BytesOf(genlmsghdr{command, version, 0}));
}

MessageBuilder& MessageBuilder::String(std::uint16_t type, std::string_view value) {
  Bytes text(value.begin(), value.end());
  text.push_back(0);
  return Raw(type, text);
}

MessageBuilder& MessageBuilder::Raw(std::uint16_t type, ByteView value) {
  Payload(BytesOf(nlattr{static_cast<std::uint16_t>(NLA_HDRLEN + value.size()), type}));
  return Payload(value);
}

std::size_t MessageBuilder::Begin(std::uint16_t type) {
  const std::size_t begun = mBytes.size();
  Raw(type, {});
  return begun;
}

void MessageBuilder::End(std::size_t begun) {
  const auto length = static_cast<std::uint16_t>(mBytes.size() - begun);
  std::memcpy(mBytes.data() + begun, &length, sizeof(length));
}

MessageBuilder& MessageBuilder::Payload(ByteView value) {
  mBytes.insert(mBytes.end(), value.begin(), value.end());
  mBytes.resize(NLMSG_ALIGN(mBytes.size()), 0);
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
    datagram = Skip(datagram, NLMSG_ALIGN(static_cast<std::size_t>(length)));
  }
  return messages;
}

Attributes ParseAttributes(ByteView bytes) {
  Attributes parsed;
  nlattr header{};
  while (bytes.size() >= sizeof(header)) {
    std::memcpy(&header, bytes.data(), sizeof(header));
    if (header.nla_len < NLA_HDRLEN || header.nla_len > bytes.size()) {
      break;
    }
    const ByteView value = bytes.subspan(NLA_HDRLEN, header.nla_len - NLA_HDRLEN);
    parsed[header.nla_type & NLA_TYPE_MASK] = Bytes(value.begin(), value.end());
    bytes = Skip(bytes, NLA_ALIGN(std::size_t{header.nla_len}));
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

Bytes MakeErrorMessage(const Request& request, std::uint32_t port, int error) {
  const ByteView repeated(request.whole);
  return MessageBuilder(NLMSG_ERROR, error == 0 ? NLM_F_CAPPED : 0, request.header.nlmsg_seq, port)
      .Payload(BytesOf(-error))
      .Payload(error == 0 ? repeated.first(NLMSG_HDRLEN) : repeated)
      .Finish();
}

Bytes MakeDoneMessage(const Request& request, std::uint32_t port, int error) {
  return MessageBuilder(NLMSG_DONE, NLM_F_MULTI, request.header.nlmsg_seq, port)
      .Payload(BytesOf(-error))
      .Finish();
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
