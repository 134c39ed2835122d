#include "framework/hubconfig.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>

#include "framework/log.h"
#include "sectiondocument.h"

namespace {

/// More than any station needs (two million cards): it keeps a wrong file from taking the memory.
constexpr std::size_t kLargestFileMiB = 64;
constexpr std::size_t kLargestFile = kLargestFileMiB * 1024 * 1024;

std::mutex gStoreMutex;
std::string gStore;

/// What tells one state of a file from another; a file that is not there (or not to be had) is a state, too.
/// The change time counts as well, so that a file made readable, or overwritten by a copy that keeps the old
/// time, is seen.
struct FileState {
  int error = 0;  ///< errno when there is no file to look at; the rest is empty then
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  time_t modified = 0;
  long modifiedNs = 0;
  time_t changed = 0;
  long changedNs = 0;

  bool operator==(const FileState&) const = default;
};

FileState ToFileState(const struct stat& data) {
  return {0,
          data.st_dev,
          data.st_ino,
          data.st_size,
          data.st_mtim.tv_sec,
          data.st_mtim.tv_nsec,
          data.st_ctim.tv_sec,
          data.st_ctim.tv_nsec};
}

FileState StatFile(const std::string& path) {
  struct stat data {};
  FileState state;
  if (stat(path.c_str(), &data) != 0) {
    state.error = errno;
    return state;
  }
  return ToFileState(data);
}

std::string ErrorText(int error) {
  return std::generic_category().message(error);
}

/// What is wrong with a file's content: reading the same file again gives the same.
class CContentError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// An open file, closed at the end.
class CReadableFile {
 public:
  /// Does not wait for the writer of a pipe that stands where the file should be.
  explicit CReadableFile(const std::string& path)
      : mDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~CReadableFile() {
    if (IsOpen()) {
      close(mDescriptor);
    }
  }
  CReadableFile(const CReadableFile&) = delete;
  CReadableFile& operator=(const CReadableFile&) = delete;

  bool IsOpen() const { return mDescriptor >= 0; }

  struct stat Stat() const {
    struct stat data {};
    if (fstat(mDescriptor, &data) != 0) {
      throw std::runtime_error("cannot be looked at: " + ErrorText(errno));
    }
    return data;
  }

  /// `size` is what the file had a moment ago.
  std::string ReadAll(std::size_t size) const {
    std::string content;
    char buffer[16384];
    for (;;) {
      if (std::max(size, content.size()) > kLargestFile) {
        throw CContentError(fmt::format("is larger than {} MiB", kLargestFileMiB));
      }
      content.reserve(size);  // growing would hold the file twice
      const ssize_t count = read(mDescriptor, buffer, sizeof buffer);
      if (count == 0) {
        return content;
      }
      if (count > 0) {
        content.append(buffer, static_cast<std::size_t>(count));
      } else if (errno != EINTR) {
        throw std::runtime_error("cannot be read: " + ErrorText(errno));
      }
    }
  }

 private:
  int mDescriptor;
};

const char* TypeName(const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue:
      return "null";
    case Json::intValue:
    case Json::uintValue:
    case Json::realValue:
      return "a number";
    case Json::stringValue:
      return "a string";
    case Json::booleanValue:
      return "a boolean";
    case Json::arrayValue:
      return "an array";
    case Json::objectValue:
      return "an object";
  }
  return "unknown";
}

}  // namespace

class HubConfig::Impl {
 public:
  Impl(std::string section, std::string file, ChangeCallback onChange)
      : mSection(std::move(section)), mFile(std::move(file)), mOnChange(std::move(onChange)) {}

  bool IsUpdated() const { return (mFailed && !mHasValues) || mLoaded != StatFile(mFile); }

  void Reload() {
    std::string problem;
    if (mContentProblem && mLoaded == StatFile(mFile)) {
      problem = *mContentProblem;
    } else {
      try {
        Load();
        return;
      } catch (const CContentError& e) {
        mContentProblem = problem = e.what();
      } catch (const std::exception& e) {
        problem = e.what();
      }
    }
    mFailed = true;
    Log::Error("Configuration section {}: {} {}. {}", mSection, mFile, problem,
               mHasValues ? "The values loaded before stay."
                          : "There are no values from before, so the defaults apply.");
  }

  const CSectionDocument& Values() const { return mValues; }

  bool GetBool(const std::string& key, bool defaultValue) {
    const Json::Value* value = mValues.Find(key);
    if (value == nullptr) {
      return defaultValue;
    }
    if (!value->isBool()) {
      if (mReportedKeys.insert(key).second) {
        Log::Error("Configuration section {}: \"{}\" in {} is {} instead of a boolean, {} is used.", mSection,
                   key, mFile, TypeName(*value), defaultValue);
      }
      return defaultValue;
    }
    return value->asBool();
  }

 private:
  /// Notes the file's state before reading, so that a change in the meantime is seen at the next look; throws
  /// with what is wrong with the file.
  void Load() {
    mContentProblem.reset();
    mLoaded = StatFile(mFile);
    const CReadableFile file(mFile);
    if (!file.IsOpen()) {
      const int error = errno;
      if (error == ENOENT) {
        Log::Info("Configuration section {}: there is no {}, defaults are used.", mSection, mFile);
        Take(CSectionDocument());
        mHasValues = false;
        return;
      }
      throw std::runtime_error("cannot be opened: " + ErrorText(error));
    }
    const struct stat data = file.Stat();
    mLoaded = ToFileState(data);
    if (!S_ISREG(data.st_mode)) {
      throw std::runtime_error("is not a regular file");
    }
    Take(Parse(file.ReadAll(static_cast<std::size_t>(data.st_size))));
    mHasValues = true;
  }

  static CSectionDocument Parse(std::string text) {
    try {
      return CSectionDocument(std::move(text));
    } catch (const std::bad_alloc&) {
      throw;  // says nothing about the file
    } catch (const std::exception& e) {
      throw CContentError(std::string("cannot be used: ") + e.what());
    }
  }

  void Take(CSectionDocument values) {
    mValues = std::move(values);
    mFailed = false;
    mReportedKeys.clear();
    if (!mOnChange) {
      return;
    }
    try {
      mOnChange(mSection, mValues.All());
    } catch (const std::exception& e) {
      Log::Error("Configuration section {}: taking the new values failed: {}", mSection, e.what());
    }
  }

  const std::string mSection;
  const std::string mFile;
  const ChangeCallback mOnChange;
  std::optional<FileState> mLoaded;            ///< of the last attempt; none before the first
  std::optional<std::string> mContentProblem;  ///< of the file in that state
  bool mFailed = false;                        ///< the last attempt
  bool mHasValues = false;                     ///< from a file, not from its absence
  CSectionDocument mValues;
  std::set<std::string> mReportedKeys;  ///< keys of the wrong type that were reported since the last load
};

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
      new HubConfig(std::make_unique<Impl>(section, std::move(file), std::move(onChange))));
}

void HubConfig::SetStore(const std::string& folder) {
  const std::lock_guard lock(gStoreMutex);
  gStore = folder;
}

bool HubConfig::IsUpdated() const {
  return mImpl->IsUpdated();
}
void HubConfig::Reload() {
  mImpl->Reload();
}

bool HubConfig::GetBool(const std::string& key, bool defaultValue) const {
  return mImpl->GetBool(key, defaultValue);
}

Json::Value HubConfig::GetValue(const std::string& key, const Json::Value& defaultValue) const {
  return mImpl->Values().Get(key, defaultValue);
}

bool HubConfig::ForEachElement(const std::string& key,
                               const std::function<void(const Json::Value&)>& visit) const {
  return mImpl->Values().ForEachElement(key, visit);
}
