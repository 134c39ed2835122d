#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Length of the well-formed UTF-8 character at the start of `text`; 0 when there is none.
std::size_t Utf8Length(std::string_view text);

/// Replaces every byte that is not part of well-formed UTF-8 by '?'. Message fields must be UTF-8: a receiver
/// refuses the whole message otherwise.
std::string ValidUtf8(std::string text);
