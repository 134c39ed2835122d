#pragma once

#include <fmt/format.h>

// Use the formatter in fmt's library. Without this line, fmt 9 puts a second one into each program; the
// header of fmt 10 has the line.
#if FMT_VERSION < 100000
extern template void fmt::detail::vformat_to<char>(buffer<char>&, basic_string_view<char>,
                                                   basic_format_args<buffer_context<char>>, locale_ref);
#endif
