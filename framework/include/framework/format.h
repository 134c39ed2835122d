#pragma once

#include <fmt/format.h>

// Use the formatter in fmt's library. Without this, fmt 9 puts a second one into each program; fmt 10 does
// not. clang compiles in a copy all the same: it knows the library's function by another name.
#if FMT_VERSION < 100000 && !defined(__clang__)
extern template void fmt::detail::vformat_to<char>(buffer<char>&, basic_string_view<char>,
                                                   basic_format_args<buffer_context<char>>, locale_ref);
#endif
