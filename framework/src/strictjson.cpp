#include "strictjson.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace {

constexpr int kDeepest = 64;  // the parser recurses, and a thread's stack may be small

Json::CharReaderBuilder MakeBuilder(int deepest, bool isWhole) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = deepest;
  builder["strictRoot"] = isWhole;
  builder["skipBom"] = isWhole;
  return builder;
}

[[noreturn]] void FailAt(std::ptrdiff_t line, std::ptrdiff_t column, const char* reason) {
  throw std::runtime_error(fmt::format("line {}, column {}: {}", line, column, reason));
}

[[noreturn]] void FailAt(std::string_view text, std::size_t at, const char* reason) {
  const auto before = text.substr(0, at);
  const auto lineStart = before.rfind('\n') + 1;
  FailAt(std::count(before.begin(), before.end(), '\n') + 1, static_cast<std::ptrdiff_t>(at - lineStart) + 1,
         reason);
}

/// Throws the first of the parser's errors ("* Line 3, Column 7\n  Missing ...\n").
[[noreturn]] void FailWithFirst(const std::string& errors) {
  int line = 1;
  int column = 1;
  char reason[200] = "";
  std::sscanf(errors.c_str(), "* Line %d, Column %d %199[^\n]", &line, &column, reason);
  FailAt(line, column, reason);
}

/// Whether text that the parser took for a number is a JSON number: optional sign, digits, fraction and
/// exponent.
bool IsStrict(std::string_view number) {
  const auto isDigitAt = [&](std::size_t at) { return at < number.size() && std::isdigit(number[at]) != 0; };
  const std::size_t first = number[0] == '-' ? 1 : 0;
  if (isDigitAt(first + 1) && number[first] == '0') {
    return false;
  }
  for (std::size_t at = 0; at < number.size(); ++at) {
    const bool hasSign = (number[at] == 'e' || number[at] == 'E') && number.find_first_of("+-", at) == at + 1;
    if (!isDigitAt(at) && !isDigitAt(at + (hasSign ? 2 : 1))) {
      return false;
    }
  }
  return true;
}

/// The parser accepts numbers that JSON does not have ("-", "007") and a comment before a key.
void CheckTokens(std::string_view text) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '"') {
      while (++at < text.size() && text[at] != '"') {
        at += text[at] == '\\' ? 1 : 0;
      }
    } else if (text[at] == '/') {
      FailAt(text, at, "Comment");
    } else if (text[at] == '-' || (text[at] >= '0' && text[at] <= '9')) {
      const auto end = std::min(text.find_first_not_of("+-.0123456789eE", at), text.size());
      if (!IsStrict(text.substr(at, end - at))) {
        FailAt(text, at, "Malformed number");
      }
      at = end - 1;
    }
  }
}

/// The parser takes a NUL as the end of the text and ignores the rest.
void CheckForNul(std::string_view text) {
  if (const auto nul = text.find('\0'); nul != std::string_view::npos) {
    FailAt(text, nul, "NUL character");
  }
}

}  // namespace

Json::Value ParseStrictJson(std::string_view text) {
  static const Json::CharReaderBuilder builder = MakeBuilder(kDeepest, true);
  CheckForNul(text);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value document;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &document, &errors)) {
    FailWithFirst(errors);
  }
  CheckTokens(text);
  if (!document.isObject()) {
    FailAt(1, 1, "The document is not an object");
  }
  return document;
}

void CheckStrictText(std::string_view text) {
  CheckForNul(text);
  CheckTokens(text);
}

const char* JsonTypeName(Json::ValueType type) {
  static constexpr std::array<const char*, 8> kNames{"null",     "a number",  "a number", "a number",
                                                     "a string", "a boolean", "an array", "an object"};
  static_assert(Json::realValue == 3 && Json::objectValue == kNames.size() - 1);
  return kNames.at(type);
}

CJsonPartParser::CJsonPartParser(int depth) : mReader(MakeBuilder(kDeepest - depth, false).newCharReader()) {}

Json::Value CJsonPartParser::Parse(std::string_view part) const {
  Json::Value value;
  if (!mReader->parse(part.data(), part.data() + part.size(), &value, nullptr)) {
    throw std::runtime_error("Malformed value");
  }
  return value;
}
