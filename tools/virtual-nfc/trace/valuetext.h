#pragma once

// The values of attributes as text.

#include <cstdint>
#include <string>

#include "tools/virtual-nfc/kernel/netlinknames.h"
#include "tools/virtual-nfc/trace/netlinktext.h"

namespace virtualnfc {

/// A number, names of bits, a string in quotes, or "hex ..." for whatever is not such a value exactly.
/// @param remark receives what helps the reader and tells no more
std::string DescribeValue(ValueKind kind, ByteView value, const NetlinkIds& ids, std::string& remark);

/// "hex 04a1"
std::string HexValue(ByteView bytes);

/// The code of an error or of the end of a dump: "EBUSY" for -16, a number when it has no name.
std::string DescribeCode(std::int32_t code);

}  // namespace virtualnfc
