#pragma once

// Generic-netlink messages as bytes: parsing requests and building the kernel's answers. No sockets, no
// state.

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace virtualnfc {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

template <typename Value>
ByteView BytesOf(const Value& value) {
  return {reinterpret_cast<const std::uint8_t*>(&value), sizeof(value)};
}

/// Builds one netlink message. Attributes are appended in the order of the calls.
class MessageBuilder {
 public:
  MessageBuilder(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence, std::uint32_t port);

  MessageBuilder& Genl(std::uint8_t command, std::uint8_t version);
  MessageBuilder& U8(std::uint16_t type, std::uint8_t value) { return Raw(type, BytesOf(value)); }
  MessageBuilder& U16(std::uint16_t type, std::uint16_t value) { return Raw(type, BytesOf(value)); }
  MessageBuilder& U32(std::uint16_t type, std::uint32_t value) { return Raw(type, BytesOf(value)); }
  /// Zero-terminated, as the kernel writes strings.
  MessageBuilder& String(std::uint16_t type, std::string_view value);
  MessageBuilder& Raw(std::uint16_t type, ByteView value);
  /// Opens an attribute that holds the ones added until End(), which takes what Begin returned.
  std::size_t Begin(std::uint16_t type);
  void End(std::size_t begun);
  /// Payload without an attribute header, padded.
  MessageBuilder& Payload(ByteView value);

  /// The message with its length filled in; the builder is used up.
  Bytes Finish();

 private:
  Bytes mBytes;
};

using Attributes = std::map<std::uint16_t, Bytes>;

/// One parsed request. A later attribute of the same type replaces an earlier one.
struct Request {
  nlmsghdr header{};
  bool hasGenlHeader = false;
  genlmsghdr genl{};
  Attributes attributes;
  /// The whole message. An error answer repeats it.
  Bytes whole;

  bool IsDump() const { return (header.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP; }
  bool WantsAck() const { return (header.nlmsg_flags & NLM_F_ACK) != 0; }
};

/// Splits what one sendmsg carried into its messages, as the kernel does: it ends silently at a header that
/// is cut off or whose length is impossible.
std::vector<Bytes> SplitMessages(ByteView datagram);

/// @param message one whole message as SplitMessages gives it
Request ParseRequest(Bytes message);

/// The attributes without their flag bits, up to one that is cut off.
Attributes ParseAttributes(ByteView bytes);

/// The number in an attribute; nothing when it is missing or has too few bytes.
template <typename Number>
std::optional<Number> Get(const Attributes& attributes, std::uint16_t type) {
  const auto found = attributes.find(type);
  Number value = 0;
  if (found == attributes.end() || found->second.size() < sizeof(value)) {
    return std::nullopt;
  }
  std::memcpy(&value, found->second.data(), sizeof(value));
  return value;
}
inline std::optional<std::uint32_t> GetU32(const Attributes& attributes, std::uint16_t type) {
  return Get<std::uint32_t>(attributes, type);
}

/// Error 0: an acknowledgement with the request's header. Otherwise -error and the whole request.
/// @param error a positive errno or 0
Bytes MakeErrorMessage(const Request& request, std::uint32_t port, int error);

/// The end of a dump; @param error a positive errno or 0, carried as the negative code.
Bytes MakeDoneMessage(const Request& request, std::uint32_t port, int error);

/// The datagrams in which the kernel sends these messages: the messages of a dump share datagrams; its end
/// and any other message have one each.
std::vector<Bytes> PackDatagrams(const std::vector<Bytes>& messages);

}  // namespace virtualnfc
