#pragma once

#include <json/value.h>

#include <functional>
#include <memory>
#include <string>

/// Client of one section of the station's configuration: a JSON document `<store>/<section>.json`.
///
/// Threads: one section object is used by one thread at a time. Nothing blocks but file access.
/// A missing file is an empty section. A broken one is reported once, at error, with the position, and the
/// last good values stay. A value of the wrong type is reported with its key and gives the default.
class HubConfig {
 public:
  using ChangeCallback = std::function<void(const std::string& section, const Json::Value& values)>;

  /// `path` is the folder of the section within the store, "/" for the store itself. `onChange` may be empty;
  /// it is called by Reload, on the caller's thread, after new values were taken. Does not read the file yet:
  /// the new object reports IsUpdated.
  static std::shared_ptr<HubConfig> Create(const std::string& section, const std::string& path,
                                           ChangeCallback onChange);

  /// The store's folder, for sections created afterwards. The RPC host sets it from its configuration file.
  static void SetStore(const std::string& folder);

  /// True when the file is another than the one last loaded (inode, size, times): one stat.
  bool IsUpdated() const;

  /// Loads the section again. Never throws; a file that does not parse changes nothing but is not tried again
  /// until it changes.
  void Reload();

  bool GetBool(const std::string& key, bool defaultValue) const;
  Json::Value GetValue(const std::string& key, const Json::Value& defaultValue) const;

  ~HubConfig();

 private:
  class Impl;
  explicit HubConfig(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> mImpl;
};
