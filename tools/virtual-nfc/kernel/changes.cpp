#include "tools/virtual-nfc/kernel/changes.h"

#include <algorithm>
#include <cstring>

namespace virtualnfc {

namespace {

constexpr std::size_t kHeaders = NLMSG_HDRLEN + GENL_HDRLEN;

void Invert(std::span<std::uint8_t> bytes) {
  for (std::uint8_t& byte : bytes) {
    byte = static_cast<std::uint8_t>(~byte);
  }
}

/// Acknowledgements and ends of dumps have no attributes.
bool HasAttributes(const Bytes& message) {
  return message.size() >= kHeaders && ParseRequest(message).header.nlmsg_type >= NLMSG_MIN_TYPE;
}

template <typename Edit>
void EditHeader(Bytes& message, Edit edit) {
  nlmsghdr header{};
  if (message.size() >= sizeof(header)) {
    std::memcpy(&header, message.data(), sizeof(header));
    edit(header);
    std::memcpy(message.data(), &header, sizeof(header));
  }
}

void DamageAttributes(Bytes& message, ChangeKind kind) {
  const Request old = ParseRequest(message);
  const ByteView all = ByteView(message).subspan(kHeaders);
  MessageBuilder damaged(old.header.nlmsg_type, old.header.nlmsg_flags, old.header.nlmsg_seq,
                         old.header.nlmsg_pid);
  damaged.Genl(old.genl.cmd, old.genl.version);
  const auto add = [&damaged](std::uint16_t type, std::size_t statedSize, ByteView value) {
    damaged.Payload(BytesOf(nlattr{static_cast<std::uint16_t>(NLA_HDRLEN + statedSize), type}))
        .Payload(value);
  };
  bool isFirst = true;
  for (const auto& [type, value] : old.attributes) {
    if (kind == ChangeKind::NestedAttributes) {
      add(type, all.size(), all);
      break;
    }
    if (kind == ChangeKind::LongAttributes) {
      add(type, value.size() + message.size(), value);
    } else if (kind == ChangeKind::ShortAttributes) {
      add(type, 1, ByteView(value).first(std::min<std::size_t>(value.size(), 1)));
    } else if (kind == ChangeKind::RepeatedAttributes) {
      Bytes other = value;
      Invert(other);
      damaged.Raw(type, value).Raw(type, other);
    } else if (!isFirst) {
      damaged.Raw(type, value);
    }
    isFirst = false;
  }
  message = damaged.Finish();
}

void Duplicate(std::vector<Bytes>& messages) {
  for (std::size_t i = 0; i < messages.size(); i += 2) {
    messages.insert(messages.begin() + static_cast<std::ptrdiff_t>(i), Bytes(messages[i]));
  }
}

}  // namespace

void ApplyChange(const Change& change, Answer& answer) {
  std::vector<Bytes>& messages = answer.messages;
  Bytes none;
  Bytes& first = messages.empty() ? none : messages.front();
  switch (change.kind) {
    case ChangeKind::Overrun:
    case ChangeKind::Close:
    case ChangeKind::Drop:
      messages.clear();
      answer.overruns |= change.kind == ChangeKind::Overrun;
      answer.closes |= change.kind == ChangeKind::Close;
      return;
    case ChangeKind::Truncate:
      first.resize(std::min<std::size_t>(first.size(), change.value));
      return;
    case ChangeKind::Garble:
      Invert(std::span(first).subspan(std::min(kHeaders, first.size())));
      return;
    case ChangeKind::LongAttributes:
    case ChangeKind::ShortAttributes:
    case ChangeKind::MissingAttribute:
    case ChangeKind::RepeatedAttributes:
    case ChangeKind::NestedAttributes:
      if (HasAttributes(first)) {
        DamageAttributes(first, change.kind);
      }
      return;
    case ChangeKind::Duplicate:
      Duplicate(messages);
      return;
    case ChangeKind::Reverse:
      std::reverse(messages.begin(), messages.end());
      return;
    case ChangeKind::NoDone:
      std::erase_if(messages, [](const Bytes& message) {
        return ParseRequest(message).header.nlmsg_type == NLMSG_DONE;
      });
      return;
    case ChangeKind::Interrupted:
      for (Bytes& message : messages) {
        EditHeader(message, [](nlmsghdr& header) {
          header.nlmsg_flags |= (header.nlmsg_flags & NLM_F_MULTI) != 0 ? NLM_F_DUMP_INTR : 0;
        });
      }
      return;
    case ChangeKind::Sequence:
      for (Bytes& message : messages) {
        EditHeader(message, [&change](nlmsghdr& header) { header.nlmsg_seq = change.value; });
      }
      return;
    case ChangeKind::Sender:
      answer.sender = change.value;
      return;
  }
}

}  // namespace virtualnfc
