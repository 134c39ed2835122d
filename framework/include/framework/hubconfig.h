#pragma once

#include <json/value.h>

#include <functional>
#include <memory>
#include <string>

/// Client of one section of the station's configuration: a JSON document `<store>/<section>.json`.
///
/// Threads: one thread at a time per section. Only file access blocks. A missing file is an empty section. A
/// broken file, or one larger than 64 MiB, is logged at error with the position, and the last good values
/// stay. A value of the wrong type is logged with its key and gives the default. Memory: the section keeps
/// the text of the file. Arrays of the top level exist only as text; as values they would take ten times as
/// much.
class HubConfig {
 public:
  using ChangeCallback = std::function<void(const std::string& section, const Json::Value& values)>;

  /// `path` is the folder of the section within the store, "/" for the store itself. `onChange` may be empty;
  /// Reload calls it on the caller's thread after it took new values. Does not read the file yet: IsUpdated
  /// is true.
  static std::shared_ptr<HubConfig> Create(const std::string& section, const std::string& path,
                                           ChangeCallback onChange);

  /// The store's folder, for sections created later. The RPC host sets it from its configuration file.
  static void SetStore(const std::string& folder);

  /// True when the file has changed since it was last loaded (inode, size, times): one stat. Also true while
  /// the section has no values because its file cannot be used.
  bool IsUpdated() const;

  /// Loads the section again. Never throws. An unusable file changes nothing and is logged at every call; a
  /// file that does not parse is only read again after a change. So a caller that reloads when IsUpdated is
  /// true logs a broken file once if there are good values from before, and otherwise every time.
  void Reload();

  bool GetBool(const std::string& key, bool defaultValue) const;

  /// Parses an array again at every call.
  Json::Value GetValue(const std::string& key, const Json::Value& defaultValue) const;

  /// Calls `visit` for each element of an array, in order, with one element in memory at a time. Returns
  /// false when the key is missing or its value is not an array.
  bool ForEachElement(const std::string& key, const std::function<void(const Json::Value&)>& visit) const;

  ~HubConfig();

 private:
  struct Impl;
  explicit HubConfig(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> mImpl;
};
