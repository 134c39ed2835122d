#include "sectiondocument.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "strictjson.h"

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

bool IsOpening(char c) {
  return c == '[' || c == '{';
}

bool IsClosing(char c) {
  return c == ']' || c == '}';
}

/// The position after the string that begins at `at`.
std::size_t SkipString(std::string_view text, std::size_t at) {
  while (++at < text.size() && text[at] != '"') {
    at += text[at] == '\\' ? 1 : 0;
  }
  return std::min(at + 1, text.size());
}

/// The end of the array element that begins at `at`: a comma, a closing bracket or the end of the text. The
/// parser decides whether the element is well-formed.
std::size_t FindEndOfElement(std::string_view text, std::size_t at) {
  std::size_t depth = 0;
  while (at < text.size()) {
    const char c = text[at];
    if (depth == 0 && (c == ',' || IsClosing(c))) {
      return at;
    }
    depth += IsOpening(c) ? 1 : 0;
    depth -= IsClosing(c) ? 1 : 0;
    at = c == '"' ? SkipString(text, at) : at + 1;
  }
  return at;
}

/// Reads the elements of the array that begins at `at`, one at a time. Returns the position after the array.
/// Throws when the array is malformed.
std::size_t ReadArray(std::string_view text, std::size_t at, const CSectionDocument::Visitor& visit) {
  const CJsonPartParser parser(2);
  bool isFirst = true;
  do {
    const std::size_t begin = at + 1;
    at = FindEndOfElement(text, begin);
    if (at == text.size() || text[at] == '}') {
      throw std::runtime_error("The array has no end");
    }
    const auto element = text.substr(begin, at - begin);
    const bool isEmpty = isFirst && text[at] == ']' && element.find_first_not_of(" \t\r\n") == element.npos;
    if (!isEmpty) {
      visit(parser.Parse(element));
    }
    isFirst = false;
  } while (text[at] != ']');
  return at + 1;
}

}  // namespace

CSectionDocument::CSectionDocument(std::string text) : mText(std::move(text)) {
  if (mText.starts_with(kByteOrderMark)) {
    mText.erase(0, kByteOrderMark.size());
  }
  try {
    CutArraysOut();
    CheckStrictText(mText);
  } catch (const std::exception&) {
    ParseStrictJson(mText);  // throws the error with its position
    throw;
  }
}

void CSectionDocument::CutArraysOut() {
  std::string rest;
  std::size_t depth = 0;
  for (std::size_t at = 0; at < mText.size();) {
    const char c = mText[at];
    const std::size_t begin = at;
    if (c == '[' && depth == 1) {
      at = ReadArray(mText, begin, [](const Json::Value&) {});
      mArrays[static_cast<std::ptrdiff_t>(rest.size())] = {begin, at};
      rest += "[]";
      continue;
    }
    depth += IsOpening(c) ? 1 : 0;
    depth -= IsClosing(c) ? 1 : 0;
    at = c == '"' ? SkipString(mText, begin) : begin + 1;
    rest.append(mText, begin, at - begin);
  }
  mValues = ParseStrictJson(rest);
}

const Json::Value* CSectionDocument::Find(const std::string& key) const {
  return mValues.find(key.data(), key.data() + key.size());
}

Json::Value CSectionDocument::Get(const std::string& key, const Json::Value& defaultValue) const {
  const Json::Value* value = Find(key);
  if (value == nullptr) {
    return defaultValue;
  }
  Json::Value copy = *value;
  ForEachElement(key, [&](const Json::Value& element) { copy.append(element); });
  return copy;
}

bool CSectionDocument::ForEachElement(const std::string& key, const Visitor& visit) const {
  const Json::Value* value = Find(key);
  if (value == nullptr || !value->isArray()) {
    return false;
  }
  ReadArray(mText, mArrays.at(value->getOffsetStart()).first, visit);
  return true;
}

Json::Value CSectionDocument::All() const {
  return ParseStrictJson(mText);
}
