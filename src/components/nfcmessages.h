#pragma once

#include <netlink/msg.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Decodes the kernel's NFC messages, without sockets, threads or log. The input may be anything that begins
/// with a netlink header whose length lies within the buffer: every attribute is checked for presence and
/// length before it is read.

/// The reader as the kernel lists it.
struct NfcDeviceInfo {
  uint32_t index = 0;
  std::string name;
  uint32_t protocols = 0;  ///< mask of what the device can read
  bool powered = false;    ///< the last power state that was requested successfully
};

/// A tag as the kernel describes it.
struct NfcTarget {
  uint32_t protocols = 0;    ///< mask, one bit for a tag that speaks one protocol
  std::vector<uint8_t> uid;  ///< as printed on the tag, first byte first; empty when the tag reported none
};

/// The command of a generic-netlink message. Nothing when the message is too short.
std::optional<uint8_t> DecodeCommand(nlmsghdr* message);

/// The id of a family's multicast group taken from the description of the family.
std::optional<uint32_t> DecodeMulticastGroup(nlmsghdr* message, std::string_view group);

/// Nothing when index, name or protocols are missing or malformed.
std::optional<NfcDeviceInfo> DecodeDevice(nlmsghdr* message);

/// The device that an event is about. Nothing when the event does not say.
std::optional<uint32_t> DecodeDeviceIndex(nlmsghdr* message);

/// Nothing when the protocols are missing or malformed. An NFCID1 has 1 to 10 bytes. An ISO 15693 UID has 8
/// and comes over the air last byte first. Values of other lengths are ignored.
std::optional<NfcTarget> DecodeTarget(nlmsghdr* message);

/// Two upper-case hexadecimal digits a byte.
std::string FormatUid(const std::vector<uint8_t>& uid);
