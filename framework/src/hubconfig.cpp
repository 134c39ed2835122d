#include "framework/hubconfig.h"

#include <sys/stat.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <set>
#include <system_error>
#include <tuple>
#include <utility>

#include "framework/log.h"
#include "sectiondocument.h"
#include "strictjson.h"
#include "wholefile.h"

namespace {

/// More than any station needs (two million cards). It keeps a wrong file from filling the memory.
constexpr std::size_t kLargestFileMiB = 64;

std::mutex gStoreMutex;
std::string gStore;

/// Tells one state of a file from another: errno when there is no file to look at, device, inode, size, time
/// of modification and of change. A missing or unreadable file counts as a separate state. The change time
/// shows that a file was made readable, or overwritten by a copy that keeps the old modification time.
using FileState = std::tuple<int, dev_t, ino_t, off_t, time_t, long, time_t, long>;

FileState LookAt(const std::string& path) {
  struct stat s {};
  const int error = stat(path.c_str(), &s) == 0 ? 0 : errno;
  return {error,
          s.st_dev,
          s.st_ino,
          s.st_size,
          s.st_mtim.tv_sec,
          s.st_mtim.tv_nsec,
          s.st_ctim.tv_sec,
          s.st_ctim.tv_nsec};
}

}  // namespace

struct HubConfig::Impl {
  /// Returns what is wrong with the file; empty when its values were taken.
  std::string Load();
  void Take(CSectionDocument document);

  const std::string section;
  const std::string file;
  const ChangeCallback onChange;
  FileState loaded{};            ///< at the last attempt; no file's state before the first
  std::string contentProblem{};  ///< of the file in that state
  bool failed = false;           ///< the last attempt
  bool hasValues = false;        ///< from a file, not from its absence
  CSectionDocument values{};
  std::set<std::string> reportedKeys{};  ///< keys of the wrong type reported since the last load
};

std::string HubConfig::Impl::Load() {
  std::string text;
  try {
    text = ReadWholeFile(file, kLargestFileMiB);
  } catch (const std::system_error& e) {
    if (e.code().value() != ENOENT) {
      return std::string("cannot be read: ") + e.what();
    }
    Log::Info("Configuration section {}: there is no {}, defaults are used.", section, file);
    hasValues = false;
    Take({});
    return "";
  } catch (const std::exception& e) {
    return std::string("cannot be read: ") + e.what();
  }
  try {
    Take(CSectionDocument(std::move(text)));
    hasValues = true;
    return "";
  } catch (const std::bad_alloc& e) {
    return e.what();  // says nothing about the file
  } catch (const std::exception& e) {
    return contentProblem = std::string("cannot be used: ") + e.what();
  }
}

void HubConfig::Impl::Take(CSectionDocument document) {
  values = std::move(document);
  reportedKeys.clear();
  if (!onChange) {
    return;
  }
  try {
    onChange(section, values.All());
  } catch (const std::exception& e) {
    Log::Error("Configuration section {}: taking the new values failed: {}", section, e.what());
  }
}

HubConfig::HubConfig(std::unique_ptr<Impl> impl) : mImpl(std::move(impl)) {}
HubConfig::~HubConfig() = default;

std::shared_ptr<HubConfig> HubConfig::Create(const std::string& section, const std::string& path,
                                             ChangeCallback onChange) {
  std::string file;
  {
    const std::lock_guard lock(gStoreMutex);
    file = gStore;
  }
  for (const std::string& part : {path, section + ".json"}) {
    const auto start = part.find_first_not_of('/');
    if (start != std::string::npos) {
      file += "/" + part.substr(start);
    }
  }
  return std::shared_ptr<HubConfig>(
      new HubConfig(std::unique_ptr<Impl>(new Impl{section, std::move(file), std::move(onChange)})));
}

void HubConfig::SetStore(const std::string& folder) {
  const std::lock_guard lock(gStoreMutex);
  gStore = folder;
}

bool HubConfig::IsUpdated() const {
  return (mImpl->failed && !mImpl->hasValues) || mImpl->loaded != LookAt(mImpl->file);
}

void HubConfig::Reload() {
  Impl& me = *mImpl;
  // Check the file before reading, so that the next check sees a change made while reading.
  const FileState before = std::exchange(me.loaded, LookAt(me.file));
  if (me.loaded != before) {
    me.contentProblem.clear();
  }
  const std::string problem = me.contentProblem.empty() ? me.Load() : me.contentProblem;
  me.failed = !problem.empty();
  if (me.failed) {
    Log::Error("Configuration section {}: {} {}. {}", me.section, me.file, problem,
               me.hasValues ? "The values loaded before stay."
                            : "There are no values from before, so the defaults apply.");
  }
}

bool HubConfig::GetBool(const std::string& key, bool defaultValue) const {
  Impl& me = *mImpl;
  const Json::Value* value = me.values.Find(key);
  if (value == nullptr) {
    return defaultValue;
  }
  if (value->isBool()) {
    return value->asBool();
  }
  if (me.reportedKeys.insert(key).second) {
    Log::Error("Configuration section {}: \"{}\" in {} is {} instead of a boolean, {} is used.", me.section,
               key, me.file, JsonTypeName(value->type()), defaultValue);
  }
  return defaultValue;
}

Json::Value HubConfig::GetValue(const std::string& key, const Json::Value& defaultValue) const {
  return mImpl->values.Get(key, defaultValue);
}

bool HubConfig::ForEachElement(const std::string& key,
                               const std::function<void(const Json::Value&)>& visit) const {
  return mImpl->values.ForEachElement(key, visit);
}
