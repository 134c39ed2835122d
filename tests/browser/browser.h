#pragma once

#include <json/value.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tools/harness/process.h"

/// A headless Chromium, driven by chromedriver. One thread. Everything fails by std::runtime_error with the
/// browser's own words.
class Browser {
 public:
  /// Starts both; their files go to the folder.
  explicit Browser(const std::filesystem::path& folder);
  ~Browser();  ///< ends both
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  void Open(const std::string& url);

  /// What the script returns; it is the body of a function.
  Json::Value Run(const std::string& script);

  /// As a person does it: the element is scrolled to, and has to be where it can be clicked.
  void Click(const std::string& selector);
  /// Keys for the element that has the focus then; "\uE007" is Enter.
  void Type(const std::string& selector, const std::string& keys);
  void Drag(const std::string& from, const std::string& to);

  /// Whether the element is there and is shown, and its text.
  bool Shows(const std::string& selector);
  std::string Text(const std::string& selector);

 private:
  Json::Value Ask(const std::string& method, const std::string& path, const Json::Value& body = {});
  Json::Value Element(const std::string& selector);

  std::unique_ptr<Process> mDriver;
  std::string mAddress;
  std::string mSession;
};
