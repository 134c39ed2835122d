#pragma once

#include <fmt/format.h>

#include <string_view>

constexpr std::size_t kLongestLogText = 4096;  ///< bytes

/// Appends `text` to a log line in a form that keeps it one line, wherever the text comes from.
///
/// Control characters (C0, DEL, C1) and bytes that are not valid UTF-8 are written as \xNN: text from outside
/// must neither start a line of its own nor control the terminal that shows the log. What exceeds
/// kLongestLogText is left out, and the line says how much that was. May throw std::bad_alloc.
void AppendLogText(fmt::memory_buffer& line, std::string_view text);
