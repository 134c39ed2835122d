#pragma once

#include <json/value.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

/// A UID in the form in which the daemon compares it.
std::string ToUpper(std::string uid);

/// The switches of the section "settings".
constexpr const char* kOcppActive = "SeccOcppActive";
constexpr const char* kFreeCharging = "SessionManagerChargeWithoutAuth";

/// The sections of the station's configuration that the daemon reads, changed as the station's other programs
/// change them: an atomic rename puts the new document in place of the old one, so no reader sees half of it.
/// Other content stays unchanged. A second editor waits.
///
/// Errors are std::runtime_error and name the file.
class Configuration {
 public:
  explicit Configuration(std::filesystem::path folder) : mFolder(std::move(folder)) {}

  /// False when the switch is missing or not a boolean, as the daemon reads it.
  bool IsOn(const char* key) const;
  void Switch(const char* key, bool on) const;

  /// The local list of permitted cards.
  std::vector<std::string> PermittedUids() const;
  /// Adds a card to the list, in upper case, or removes it. Returns false if there was nothing to do.
  bool Permit(const std::string& uid, bool on) const;

 private:
  /// `<folder>/<section>.json` or, if that is a link, its target.
  std::filesystem::path FileOf(const std::string& section) const;
  /// The document as it is now, an empty object when there is no file.
  Json::Value Load(const std::string& section) const;
  /// Loads the document, lets `edit` change it, and stores it if `edit` returns true.
  void Edit(const std::string& section, const std::function<bool(Json::Value&)>& edit) const;
  static void Store(const std::filesystem::path& file, const Json::Value& document);

  std::filesystem::path mFolder;
};
