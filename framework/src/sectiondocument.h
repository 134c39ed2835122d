#pragma once

#include <json/value.h>

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <utility>

/// A strict JSON document (see ParseStrictJson) that keeps the arrays of its top level as text. As values a
/// long list would take ten times the memory.
class CSectionDocument {
 public:
  using Visitor = std::function<void(const Json::Value&)>;

  /// The empty document.
  CSectionDocument() = default;

  /// Throws like ParseStrictJson.
  explicit CSectionDocument(std::string text);

  /// The value of a key; null when there is none. An array is empty here.
  const Json::Value* Find(const std::string& key) const;

  Json::Value Get(const std::string& key, const Json::Value& defaultValue) const;

  /// Calls `visit` for each element of an array, with one element in memory at a time. Returns false when the
  /// key is missing or its value is not an array.
  bool ForEachElement(const std::string& key, const Visitor& visit) const;

  /// The whole document as a value.
  Json::Value All() const;

 private:
  void CutArraysOut();

  std::string mText = "{}";
  Json::Value mValues{Json::objectValue};  ///< with empty arrays, whose offsets are the keys of mArrays
  std::map<std::ptrdiff_t, std::pair<std::size_t, std::size_t>> mArrays;  ///< begin and end in the text
};
