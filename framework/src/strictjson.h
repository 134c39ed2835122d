#pragma once

#include <json/reader.h>
#include <json/value.h>

#include <memory>
#include <string_view>

/// Reads one strict JSON document (no comments, no trailing commas, no repeated keys, nothing after it) whose
/// top level is an object. Throws std::runtime_error whose text begins with the position of the first error:
/// "line 3, column 7: Missing ',' or '}' in object declaration".
Json::Value ParseStrictJson(std::string_view text);

/// Throws for text that is not JSON although the parser accepts it. The parser must have accepted `text`.
void CheckStrictText(std::string_view text);

/// "a number", "an object" and so on, for error messages.
const char* JsonTypeName(Json::ValueType type);

/// Reads parts of a document, one after the other.
class CJsonPartParser {
 public:
  /// `depth` is the number of arrays and objects around the parts.
  explicit CJsonPartParser(int depth);

  /// Reads one value of any type. Throws std::exception when it is malformed.
  Json::Value Parse(std::string_view part) const;

 private:
  const std::unique_ptr<Json::CharReader> mReader;
};
