#include "strictjson.h"

#include <json/reader.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

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

}  // namespace

Json::Value ParseStrictJson(std::string_view text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = 64;  // the parser recurses, and a thread's stack may be small
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());

  Json::Value document;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &document, &errors)) {
    throw std::runtime_error(FirstError(errors));
  }
  if (!document.isObject()) {
    throw std::runtime_error("line 1, column 1: The document is not an object");
  }
  return document;
}
