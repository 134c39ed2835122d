#pragma once

#include <json/value.h>

#include <string_view>

/// Reads one strict JSON document (no comments, no trailing commas, no repeated keys, nothing after it) whose
/// top level is an object. Throws std::runtime_error whose text begins with the position of the first error:
/// "line 3, column 7: Missing ',' or '}' in object declaration".
Json::Value ParseStrictJson(std::string_view text);
