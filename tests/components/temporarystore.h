#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "framework/hubconfig.h"

/// A configuration store in its own folder. Like a station, it changes files by an atomic rename.
class TemporaryStore {
 public:
  TemporaryStore() {
    std::string name = std::filesystem::temp_directory_path() / "rfid-store-XXXXXX";
    mFolder = mkdtemp(name.data());
    HubConfig::SetStore(mFolder);
  }
  ~TemporaryStore() { std::filesystem::remove_all(mFolder); }
  TemporaryStore(const TemporaryStore&) = delete;
  TemporaryStore& operator=(const TemporaryStore&) = delete;

  void Write(const std::string& section, const std::string& json) const {
    std::ofstream(mFolder / "new") << json;
    std::filesystem::rename(mFolder / "new", mFolder / (section + ".json"));
  }

 private:
  std::filesystem::path mFolder;
};
