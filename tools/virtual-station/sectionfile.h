#pragma once

#include <json/value.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

/// A UID in the form in which the daemon compares it.
std::string ToUpper(std::string uid);

/// A section of the station's configuration, changed as the station's other programs change it: an atomic
/// rename puts the new document in place of the old one, so no reader sees half of it. Other content stays
/// unchanged.
///
/// Errors are std::runtime_error and name the file.
class SectionFile {
 public:
  /// `<folder>/<section>.json`; need not exist.
  SectionFile(const std::filesystem::path& folder, const std::string& section);

  /// The document as it is now, an empty object when there is no file.
  Json::Value Load() const;

  /// Loads the document, lets `edit` change it, and stores it if `edit` returns true. A second editor waits.
  void Edit(const std::function<bool(Json::Value&)>& edit) const;

 private:
  void Store(const Json::Value& document) const;

  std::filesystem::path mFile;
};

/// The section with the switches of the whole station.
class StationSettings {
 public:
  explicit StationSettings(const std::filesystem::path& folder) : mFile(folder, "settings") {}

  void SetOcppActive(bool active) const { Set("SeccOcppActive", active); }
  void SetFreeCharging(bool free) const { Set("SessionManagerChargeWithoutAuth", free); }
  bool IsOcppActive() const { return Get("SeccOcppActive"); }
  bool IsFreeCharging() const { return Get("SessionManagerChargeWithoutAuth"); }

 private:
  void Set(const char* key, bool value) const;
  bool Get(const char* key) const;  ///< false when it is missing or not a boolean, as the daemon reads it
  SectionFile mFile;
};

/// The section with the local list of permitted cards. UIDs are stored in upper case, as the daemon compares
/// them.
class CardList {
 public:
  explicit CardList(const std::filesystem::path& folder) : mFile(folder, "rfid_standalone") {}

  bool Add(const std::string& uid) const;     ///< false if it is already in the list
  bool Remove(const std::string& uid) const;  ///< false if it is not in the list
  std::vector<std::string> Uids() const;

 private:
  SectionFile mFile;
};
