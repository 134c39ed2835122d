#pragma once

#include <json/value.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tools/harness/process.h"

/// A headless Chromium, driven by chromedriver. One thread. Errors are std::runtime_error with the browser's
/// text.
class Browser {
 public:
  /// Starts both; their files go to the folder.
  explicit Browser(const std::filesystem::path& folder);
  ~Browser();  ///< ends both
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  void Open(const std::string& url);

  /// Runs the script, the body of a function, which finds the argument in arguments[0]. Returns its result.
  Json::Value Run(const std::string& script, const std::string& argument = {});

  /// Clicks as a person does: scrolls to the element, which must not be covered.
  void Click(const std::string& selector);
  /// Focuses the element and types; "\uE007" is Enter.
  void Type(const std::string& selector, const std::string& keys);

  /// Whether the element is visible; its text.
  bool Shows(const std::string& selector);
  std::string Text(const std::string& selector);

 private:
  Json::Value Ask(const std::string& method, const std::string& path, const Json::Value& body = {});
  std::string Element(const std::string& selector);  ///< its path for Ask

  std::unique_ptr<Process> mDriver;
  std::string mAddress;
  std::string mSession;
};
