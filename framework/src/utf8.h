#pragma once

#include <string>

/// The text with every byte that is no part of well-formed UTF-8 replaced by '?'. Message fields must be
/// UTF-8: a receiver refuses the whole message otherwise.
std::string ValidUtf8(std::string text);
