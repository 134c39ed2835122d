#pragma once

// The names that a record uses: of the families' commands and attributes, of flags, protocols and errors.
// Tables only.

#include <cstdint>
#include <span>
#include <string>

namespace virtualnfc {

struct AttributeInfo;

/// The attributes that may stand beside each other.
struct AttributeSchema {
  /// Before the number of one that has no name here.
  const char* prefix;
  std::span<const AttributeInfo> known;
  /// For a list, whose entries are numbered: what each of them is.
  const AttributeInfo* entry = nullptr;
};

/// How the value of an attribute is written.
enum class ValueKind { Hex, U8, U16, U32, String, Protocols, OperationFlags, FamilyId, GroupId, Nested };

struct AttributeInfo {
  const char* name;
  std::uint16_t type;
  ValueKind kind;
  const AttributeSchema* nested = nullptr;
};

/// Names for bits, those of several bits first.
struct NamedBits {
  std::uint32_t bits;
  const char* name;
};

struct NamedNumber {
  int number;
  const char* name;
};

/// Of the family "nfc", of the controller, and of any other family.
const AttributeSchema& NfcSchema();
const AttributeSchema& ControllerSchema();
const AttributeSchema& UnknownSchema();

std::span<const NamedNumber> NfcCommands();
std::span<const NamedNumber> ControllerCommands();
/// errno by name, positive.
std::span<const NamedNumber> ErrorNames();

/// The flags of a message; those of an answer that is an error mean something else.
std::span<const NamedBits> MessageFlags(bool isError);
std::span<const NamedBits> ProtocolNames();
std::span<const NamedBits> OperationFlagNames();

/// What is known of an attribute; null when nothing is. @param type its flag bits do not matter
const AttributeInfo* FindAttribute(const AttributeSchema& schema, std::uint16_t type);
/// @param type with its flag bits, which become part of the name
std::string AttributeName(const AttributeSchema& schema, std::uint16_t type);

/// The name, or the number in decimal digits.
std::string NameOf(std::span<const NamedNumber> names, int number);

/// "REQUEST|ACK|0x1000", "0" for none.
std::string BitNames(std::span<const NamedBits> names, std::uint32_t bits);

}  // namespace virtualnfc
