#pragma once

#include <linux/genetlink.h>
#include <netlink/msg.h>
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "fuzz/check.h"

using Bytes = std::vector<uint8_t>;

/// The fuzzer's bytes as one netlink message whose header states their length.
///
/// The message ends right before inaccessible memory, because libnl is not instrumented and nothing else
/// would catch an over-read in libnl. The bytes that alignment leaves between the two are poisoned for our
/// own code.
class NetlinkMessage {
 public:
  NetlinkMessage(const uint8_t* data, size_t size) : mSize(size) {
    constexpr size_t kMost = 64 * 1024;  // a multiple of every page size
    static auto* const memory = static_cast<uint8_t*>(
        mmap(nullptr, 2 * kMost, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    FUZZ_CHECK(memory != MAP_FAILED && mprotect(memory + kMost, kMost, PROT_NONE) == 0);
    const size_t room = NLMSG_ALIGN(std::max<size_t>(size, NLMSG_HDRLEN));
    FUZZ_CHECK(room <= kMost);
    ASAN_UNPOISON_MEMORY_REGION(memory, kMost);
    mBegin = memory + kMost - room;
    std::memset(mBegin, 0, room);
    std::copy_n(data, size, mBegin);
    Header()->nlmsg_len = static_cast<uint32_t>(size);
    ASAN_POISON_MEMORY_REGION(memory, kMost - room);
    ASAN_POISON_MEMORY_REGION(mBegin + std::max<size_t>(size, NLMSG_HDRLEN), room - std::min(room, size));
  }

  nlmsghdr* Header() const { return reinterpret_cast<nlmsghdr*>(mBegin); }
  bool HasHeaders() const { return mSize >= NLMSG_HDRLEN + GENL_HDRLEN; }
  uint8_t Command() const { return mBegin[NLMSG_HDRLEN]; }

  /// What follows the headers.
  Bytes Payload() const {
    return HasHeaders() ? Bytes(mBegin + NLMSG_HDRLEN + GENL_HDRLEN, mBegin + mSize) : Bytes();
  }

 private:
  uint8_t* mBegin;
  size_t mSize;
};

/// The attributes in these bytes up to the first one that does not fit: type and value. Does not use libnl,
/// because its result is compared with libnl's.
inline std::vector<std::pair<unsigned, Bytes>> ReadAttributes(const Bytes& bytes) {
  std::vector<std::pair<unsigned, Bytes>> attributes;
  for (size_t at = 0; at + 4 <= bytes.size();) {
    const size_t length = bytes[at] + 256U * bytes[at + 1];
    if (length < 4 || length > bytes.size() - at) {
      break;
    }
    const unsigned type = bytes[at + 2] + 256U * (bytes[at + 3] & 0x3fU);  // without the two flags
    attributes.emplace_back(type, Bytes(bytes.data() + at + 4, bytes.data() + at + length));
    at += (length + 3) / 4 * 4;
  }
  return attributes;
}

/// The same bytes; empty when a type up to `highestType` comes twice.
inline Bytes Unambiguous(const Bytes& bytes, unsigned highestType) {
  std::set<unsigned> types;
  for (const auto& [type, value] : ReadAttributes(bytes)) {
    if (type != 0 && type <= highestType && !types.insert(type).second) {
      return {};
    }
  }
  return bytes;
}

/// The value of the last attribute of this type. Nothing when the attribute is missing or has fewer than
/// `least` bytes.
inline std::optional<Bytes> Find(const Bytes& bytes, unsigned type, size_t least = 0) {
  std::optional<Bytes> found;
  for (auto& [itsType, value] : ReadAttributes(bytes)) {
    if (itsType == type) {
      found = std::move(value);
    }
  }
  return found && found->size() >= least ? found : std::nullopt;
}

inline std::optional<uint32_t> FindNumber(const Bytes& bytes, unsigned type) {
  const auto value = Find(bytes, type, 4).value_or(Bytes());
  uint32_t number = 0;
  for (size_t i = value.empty() ? 0 : 4; i > 0; --i) {
    number = number << 8U | value[i - 1];
  }
  return value.empty() ? std::nullopt : std::optional(number);
}

/// Text up to its NUL, which must be there.
inline std::optional<std::string> FindText(const Bytes& bytes, unsigned type) {
  const auto value = Find(bytes, type).value_or(Bytes());
  const auto end = std::find(value.begin(), value.end(), 0);
  return end != value.end() ? std::optional(std::string(value.begin(), end)) : std::nullopt;
}
