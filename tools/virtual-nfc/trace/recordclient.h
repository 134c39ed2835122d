#pragma once

#include <cstdint>
#include <string>

namespace virtualnfc {

enum class RecordEnd { Done, Refused, NoServer };

/// Records what the server at this address sees, line by line as it comes, until SIGINT or SIGTERM, until so
/// many messages have come (0: no limit), the server ends, or nobody reads the output any more. Says on
/// standard error why it ended when it was not asked to. To be called before the process has threads: it
/// takes the two signals.
/// @param file its path; empty for standard output
RecordEnd RecordTo(const std::string& address, const std::string& file, std::uint32_t count);

}  // namespace virtualnfc
