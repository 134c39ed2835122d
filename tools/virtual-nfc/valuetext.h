#pragma once

// The values of attributes as text, and back to the same bytes.

#include <cstdint>
#include <string>
#include <string_view>

#include "netlinknames.h"
#include "netlinktext.h"

namespace virtualnfc {

/// A number, names of bits, a string in quotes, or "hex ..." for whatever is not such a value exactly.
/// @param remark receives what helps the reader and is not needed to get the bytes back
std::string DescribeValue(ValueKind kind, ByteView value, const NetlinkIds& ids, std::string& remark);

/// @param line where the text stands, for the error
/// @throws RecordError
Bytes BuildValue(ValueKind kind, std::string_view text, const NetlinkIds& ids, std::size_t line);

/// "hex 04a1"
std::string HexValue(ByteView bytes);

/// The code of an error or of the end of a dump: "EBUSY" for -16, a number when it has no name.
std::string DescribeCode(std::int32_t code);
std::int32_t BuildCode(std::string_view text, std::size_t line);

/// Where the string in quotes at the beginning of this text ends; the whole length when it has no end.
std::size_t EndOfString(std::string_view text);

}  // namespace virtualnfc
