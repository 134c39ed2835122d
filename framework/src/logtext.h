#pragma once

#include <string_view>

#include "framework/format.h"

constexpr std::size_t kLongestLogText = 4096;  ///< bytes

/// Appends `text` to a log line so that it stays one line, even if the text comes from outside.
///
/// Control characters (C0, DEL, C1) and bytes that are not valid UTF-8 are written as \xNN: text from outside
/// must not start a new line or control the terminal that shows the log. Text beyond kLongestLogText is cut
/// off, and the line says how much. May throw std::bad_alloc.
void AppendLogText(fmt::memory_buffer& line, std::string_view text);
