#pragma once

#include <cstdint>
#include <string>

namespace virtualnfc {

enum class RecordEnd { Done, Refused, NoServer };

/// Writes down what the server at this address sees, line by line. Ends after that many messages (0: no
/// limit), on SIGINT and SIGTERM (exit status 0), when the server ends, or when nobody reads the output. Says
/// on standard error why it ended early.
/// @param file its path; empty for standard output
RecordEnd RecordTo(const std::string& address, const std::string& file, std::uint32_t count);

}  // namespace virtualnfc
