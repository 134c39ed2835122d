// What a rule does to the messages of an answer or event.

#include <algorithm>
#include <cstring>

#include "tools/virtual-nfc/kernel/rules.h"

namespace virtualnfc {

namespace {

constexpr std::size_t kHeaders = NLMSG_HDRLEN + GENL_HDRLEN;

void Invert(std::span<std::uint8_t> bytes) {
  for (std::uint8_t& byte : bytes) {
    byte = static_cast<std::uint8_t>(~byte);
  }
}

template <typename Edit>
void EditHeaders(Answer& answer, Edit edit) {
  for (Bytes& message : answer.messages) {
    nlmsghdr header{};
    if (message.size() >= sizeof(header)) {
      std::memcpy(&header, message.data(), sizeof(header));
      edit(header);
      std::memcpy(message.data(), &header, sizeof(header));
    }
  }
}

template <typename Edit>
void EditFirst(Answer& answer, Edit edit) {
  if (!answer.messages.empty()) {
    edit(answer.messages.front());
  }
}

enum class Damage { Long, Short, Missing, Twice, Nested };

template <Damage How>
void DamageAttributes(Answer& answer, std::uint32_t /*number*/) {
  const Request old = answer.messages.empty() ? Request() : ParseRequest(answer.messages.front());
  // Acknowledgements and ends of dumps have no attributes.
  if (!old.hasGenlHeader || old.header.nlmsg_type < NLMSG_MIN_TYPE) {
    return;
  }
  MessageBuilder damaged(old.header.nlmsg_type, old.header.nlmsg_flags, old.header.nlmsg_seq,
                         old.header.nlmsg_pid);
  damaged.Genl(old.genl.cmd, old.genl.version);
  const auto add = [&damaged](std::uint16_t type, std::size_t statedSize, ByteView value) {
    damaged.Payload(BytesOf(nlattr{static_cast<std::uint16_t>(NLA_HDRLEN + statedSize), type}))
        .Payload(value);
  };
  bool isFirst = true;
  for (const auto& [type, value] : old.attributes) {
    if (How == Damage::Nested && isFirst) {
      damaged.Raw(type, ByteView(old.whole).subspan(kHeaders));
    } else if (How == Damage::Long) {
      add(type, value.size() + old.whole.size(), value);
    } else if (How == Damage::Short) {
      add(type, 1, ByteView(value).first(std::min<std::size_t>(value.size(), 1)));
    } else if (How == Damage::Twice) {
      Bytes other = value;
      Invert(other);
      damaged.Raw(type, value).Raw(type, other);
    } else if (How == Damage::Missing && !isFirst) {
      damaged.Raw(type, value);
    }
    isFirst = false;
  }
  answer.messages.front() = damaged.Finish();
}

constexpr Change kChanges[] = {
    {"drop", [](Answer& answer, std::uint32_t) { answer.messages.clear(); }},
    {"overrun", [](Answer& answer, std::uint32_t) { answer = {.messages = {}, .overruns = true}; }},
    {"close", [](Answer& answer, std::uint32_t) { answer = {.messages = {}, .closes = true}; }},
    {"truncate=",
     [](Answer& answer, std::uint32_t size) {
       EditFirst(answer, [size](Bytes& first) { first.resize(std::min<std::size_t>(first.size(), size)); });
     }},
    {"garble",
     [](Answer& answer, std::uint32_t) {
       EditFirst(answer,
                 [](Bytes& first) { Invert(std::span(first).subspan(std::min(kHeaders, first.size()))); });
     }},
    {"garble=long", DamageAttributes<Damage::Long>},
    {"garble=short", DamageAttributes<Damage::Short>},
    {"garble=missing", DamageAttributes<Damage::Missing>},
    {"garble=twice", DamageAttributes<Damage::Twice>},
    {"garble=nested", DamageAttributes<Damage::Nested>},
    {"duplicate",
     [](Answer& answer, std::uint32_t) {
       std::vector<Bytes> twice;
       for (const Bytes& message : answer.messages) {
         twice.insert(twice.end(), 2, message);
       }
       answer.messages = std::move(twice);
     }},
    {"reverse",
     [](Answer& answer, std::uint32_t) { std::reverse(answer.messages.begin(), answer.messages.end()); }},
    {"no-done",
     [](Answer& answer, std::uint32_t) {
       std::erase_if(answer.messages, [](const Bytes& message) {
         return ParseRequest(message).header.nlmsg_type == NLMSG_DONE;
       });
     }},
    {"interrupted",
     [](Answer& answer, std::uint32_t) {
       EditHeaders(answer, [](nlmsghdr& header) {
         header.nlmsg_flags |= (header.nlmsg_flags & NLM_F_MULTI) != 0 ? NLM_F_DUMP_INTR : 0;
       });
     }},
    {"seq=",
     [](Answer& answer, std::uint32_t sequence) {
       EditHeaders(answer, [sequence](nlmsghdr& header) { header.nlmsg_seq = sequence; });
     }},
    {"sender=", [](Answer& answer, std::uint32_t port) { answer.sender = port; }},
};

}  // namespace

std::span<const Change> Changes() {
  return kChanges;
}

}  // namespace virtualnfc
