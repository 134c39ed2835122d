#pragma once

// Tags, and what the kernel reports of each kind.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/virtual-nfc/kernel/genlmessage.h"

namespace virtualnfc {

/// The part of the kernel that drives the reader; the two differ in what they report and in how they fail.
/// Digital: the kernel does the protocol, the reader only sends frames. Nci: the chip does the protocol.
enum class Stack { Digital, Nci };

/// The radio technology by which a tag is found.
enum class Radio { A, B, F, V };

/// Foreign: an NFC-A tag whose protocol the kernel does not know. Digital does not find it; with Nci it kills
/// the poll.
enum class TagKind { Mifare, Felica, Iso14443A, NfcDep, Iso14443B, Iso15693, Foreign };

struct Tag {
  /// For people: the UID as it is printed on the tag, or a remark.
  std::string label;
  Radio radio = Radio::A;
  /// NFC_PROTO_*_MASK; 0: unknown to the kernel. Nci finds the tag when the polling mask has one of these
  /// bits.
  std::uint32_t protocols = 0;
  /// The attributes of its target message after the index, in order.
  std::vector<std::pair<std::uint16_t, Bytes>> attributes;
};

/// A tag of this kind, as the stack reports it.
/// @param uid hexadecimal as printed on the tag. NFC-A kinds: 4, 7 or 10 bytes, or none for a
/// tag without a number. Felica: the 8 bytes of the IDm, or the whole SENSF_RES (Digital: 17 or 18 bytes,
/// response code first; Nci: 16 or 18). ISO 14443-B: the 4 bytes of the PUPI, or the whole SENSB_RES of 11
/// bytes, which Digital does not report. ISO 15693: 8 bytes, E0 first.
/// @throws std::invalid_argument saying what is wrong with the UID
Tag MakeTag(TagKind kind, std::string_view uid, Stack stack = Stack::Digital);

/// @throws std::invalid_argument naming the known kinds
TagKind ParseTagKind(std::string_view name);

/// The names that ParseTagKind takes.
const std::vector<std::string>& TagKindNames();

/// @throws std::invalid_argument
Bytes ParseHex(std::string_view text);

/// @throws std::invalid_argument saying what is unknown, and the known names
std::size_t IndexOf(std::string_view what, std::string_view name, const std::vector<std::string>& known);

/// Whether a poll for these protocols looks for tags of this technology.
bool IsPolled(std::uint32_t protocolMask, Radio radio);

}  // namespace virtualnfc
