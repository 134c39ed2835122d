#include "strictjson.h"

#include <json/reader.h>

#include <algorithm>
#include <cstddef>
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

/// The parser's first error ("* Line 3, Column 7\n  Missing ...\n") in one line.
std::string FirstError(const std::string& errors) {
  const auto endOfPosition = errors.find('\n');
  std::string position = errors.substr(0, endOfPosition);
  position.erase(0, position.find_first_not_of("* "));
  std::transform(position.begin(), position.end(), position.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  if (endOfPosition == std::string::npos) {
    return position;
  }
  std::string reason = errors.substr(endOfPosition + 1);
  reason.erase(0, reason.find_first_not_of(' '));
  reason.erase(std::min(reason.find('\n'), reason.size()));
  return position + ": " + reason;
}

/// Length of the number at the start of `text` as JSON writes it; 0 when there is none.
std::size_t NumberLength(std::string_view text) {
  std::size_t at = 0;
  const auto take = [&](std::string_view oneOf) {
    const bool found = at < text.size() && oneOf.find(text[at]) != std::string_view::npos;
    at += found ? 1 : 0;
    return found;
  };
  const auto takeDigits = [&] {
    const std::size_t before = at;
    while (take("0123456789")) {
    }
    return at > before;
  };
  take("-");
  if (!take("0") && !takeDigits()) {
    return 0;
  }
  if (take(".") && !takeDigits()) {
    return 0;
  }
  if (take("eE")) {
    take("+-");
    return takeDigits() ? at : 0;
  }
  return at;
}

[[noreturn]] void FailAt(std::string_view text, std::size_t at, const char* reason) {
  const auto before = text.substr(0, at);
  const auto line = std::count(before.begin(), before.end(), '\n') + 1;
  const auto column = at - (before.rfind('\n') + 1) + 1;
  throw std::runtime_error("line " + std::to_string(line) + ", column " + std::to_string(column) + ": " +
                           reason);
}

/// The parser takes numbers that JSON does not have ("-", "007" for 7). Throws for the first of them; `text`
/// is what the parser accepted.
void CheckNumbers(std::string_view text) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '"') {
      while (++at < text.size() && text[at] != '"') {
        at += text[at] == '\\' ? 1 : 0;
      }
    } else if (text[at] == '-' || (text[at] >= '0' && text[at] <= '9')) {
      const auto rest = text.substr(at);
      const auto length = std::min(rest.find_first_not_of("+-.0123456789eE"), rest.size());
      if (NumberLength(rest) != length) {
        FailAt(text, at, "Malformed number");
      }
      at += length - 1;
    }
  }
}

/// The parser takes a NUL for the end and would not look at what follows.
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
    throw std::runtime_error(FirstError(errors));
  }
  CheckNumbers(text);
  if (!document.isObject()) {
    throw std::runtime_error("line 1, column 1: The document is not an object");
  }
  return document;
}

void CheckStrictText(std::string_view text) {
  CheckForNul(text);
  CheckNumbers(text);
}

CJsonPartParser::CJsonPartParser(int depth) : mReader(MakeBuilder(kDeepest - depth, false).newCharReader()) {}

Json::Value CJsonPartParser::Parse(std::string_view part) const {
  Json::Value value;
  if (!mReader->parse(part.data(), part.data() + part.size(), &value, nullptr)) {
    throw std::runtime_error("Malformed value");
  }
  return value;
}
