#pragma once

// Tags as the reader sees them: what the kernel reports of each kind of tag.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/virtual-nfc/kernel/genlmessage.h"

namespace virtualnfc {

/// What drives the reader within the kernel; the two differ in what they report and in how they fail.
/// Digital: the kernel does the protocol, the reader only sends frames. Nci: the chip does the protocol.
enum class Stack { Digital, Nci };

/// The radio technology by which a tag is found.
enum class Radio { A, B, F, V };

/// Foreign: an NFC-A tag with a protocol the kernel has no name for. Digital does not find it; with Nci it
/// kills the poll.
enum class TagKind { Mifare, Felica, Iso14443A, NfcDep, Iso14443B, Iso15693, Foreign };

struct Tag {
  /// For people: the UID as it is printed on the tag, or a remark.
  std::string label;
  Radio radio = Radio::A;
  /// NFC_PROTO_*_MASK. 0: no kernel knows the tag; Nci knows it when the polling mask has one of its bits.
  std::uint32_t protocols = 0;
  /// All attributes of its target message but the index, in order.
  std::vector<std::pair<std::uint16_t, Bytes>> attributes;
  /// The words by which it can be made again, "mifare 04A12B5C"; empty for one with attributes of its own.
  std::string words = {};
};

/// A tag as that stack reports its kind.
/// @param uid hexadecimal as printed on the tag, colons allowed. NFC-A kinds: 4, 7 or 10 bytes, or none for a
/// tag whose chip gave no number. Felica: the 8 bytes of the IDm, or the whole SENSF_RES as reported
/// (Digital: 17 or 18 bytes, response code first; Nci: 16 or 18). ISO 14443-B: the 4 bytes of the PUPI, or
/// the whole SENSB_RES of 11, which Digital does not report. ISO 15693: 8 bytes, E0 first.
/// @throws std::invalid_argument saying what is wrong with the UID
Tag MakeTag(TagKind kind, std::string_view uid, Stack stack = Stack::Digital);

/// A tag with attributes of one's own, for what no reader should report: any bytes, in any order.
Tag MakeRawTag(std::uint32_t protocols, std::vector<std::pair<std::uint16_t, Bytes>> attributes,
               Radio radio = Radio::A);

/// @throws std::invalid_argument naming the known kinds
TagKind ParseTagKind(std::string_view name);

/// The names that ParseTagKind takes.
const std::vector<std::string>& TagKindNames();

/// @throws std::invalid_argument
Bytes ParseHex(std::string_view text);

/// Whether polling for these protocols makes the chip look for tags of this technology.
bool IsPolled(std::uint32_t protocolMask, Radio radio);

}  // namespace virtualnfc
