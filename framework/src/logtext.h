#pragma once

#include <fmt/format.h>

#include <string_view>

/// The text of one log line, fit to be one line whatever it came from.
///
/// Control characters (C0, DEL, C1) and bytes that are no valid UTF-8 are written as \xNN: text from outside
/// must neither begin a line of its own nor drive the terminal on which the log is read. What exceeds
/// kLongestLogText bytes is left out, and how much that was is said. Appends to `line`; may throw
/// std::bad_alloc.
void AppendLogText(fmt::memory_buffer& line, std::string_view text);

constexpr std::size_t kLongestLogText = 4096;
