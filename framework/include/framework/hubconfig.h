#pragma once

#include <json/value.h>

#include <functional>
#include <memory>
#include <string>

/// Client of one section of the station's configuration: a JSON document `<store>/<section>.json`.
///
/// Threads: one section object is used by one thread at a time. Nothing blocks but file access.
/// A missing file is an empty section. A broken one (or one larger than 64 MiB) is reported at error, with
/// the position, and the last good values stay. A value of the wrong type is reported with its key and gives
/// the default. Memory: the text of the file is kept. Arrays of the top level are never kept as values, which
/// would take ten times as much.
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

  /// True when the file is another than the one last loaded (inode, size, times): one stat. Also true while
  /// the section has no values from any file because the file that is there cannot be used.
  bool IsUpdated() const;

  /// Loads the section again. Never throws; a file that cannot be used changes nothing and is reported at
  /// every call. One that does not parse is not read again until it changes. So whoever reloads when
  /// IsUpdated says so hears once of a broken file that leaves good values in force, and every time of one
  /// that leaves none.
  void Reload();

  bool GetBool(const std::string& key, bool defaultValue) const;

  /// An array is made from its text at every call.
  Json::Value GetValue(const std::string& key, const Json::Value& defaultValue) const;

  /// Calls `visit` for each element of an array, in order; the elements exist one at a time. Returns false
  /// when the key is missing or has no array.
  bool ForEachElement(const std::string& key, const std::function<void(const Json::Value&)>& visit) const;

  ~HubConfig();

 private:
  struct Impl;
  explicit HubConfig(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> mImpl;
};
