#include "virtual-station/sectionfile.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace {

[[noreturn]] void Fail(const std::filesystem::path& file, const std::string& what, int error) {
  throw std::runtime_error(file.string() + ": " + what + ": " + std::generic_category().message(error));
}

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : mDescriptor(descriptor) {}
  ~Descriptor() {
    if (mDescriptor >= 0) {
      close(mDescriptor);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return mDescriptor; }

 private:
  const int mDescriptor;
};

void WriteAll(int descriptor, const std::string& text, const std::string& file) {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = write(descriptor, text.data() + written, text.size() - written);
    if (count >= 0) {
      written += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      Fail(file, "cannot be written", errno);
    }
  }
}

/// The new file gets the old one's mode and, if that is permitted, owner.
void TakeOverAttributes(int descriptor, const std::filesystem::path& old) {
  struct stat data {};
  if (stat(old.c_str(), &data) != 0) {
    data.st_mode = 0644;
  } else if (fchown(descriptor, data.st_uid, data.st_gid) != 0) {
    // Only root may give files away.
  }
  if (fchmod(descriptor, data.st_mode & 07777) != 0) {
    Fail(old, "cannot set the mode of its successor", errno);
  }
}

std::string ToUpper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
  return text;
}

constexpr const char* kTokens = "Tokens";
constexpr const char* kUid = "RfidTokenUid";

std::string UidOf(const Json::Value& token) {
  return token.isObject() && token[kUid].isString() ? token[kUid].asString() : "";
}

/// The document's list, made if there is none; whatever else stands in its place is not touched.
Json::Value& TokensOf(Json::Value& document) {
  Json::Value& tokens = document[kTokens];
  if (tokens.isNull()) {
    tokens = Json::Value(Json::arrayValue);
  }
  if (!tokens.isArray()) {
    throw std::runtime_error("rfid_standalone.json is left as it is, its \"Tokens\" is not an array");
  }
  return tokens;
}

}  // namespace

SectionFile::SectionFile(const std::filesystem::path& folder, const std::string& section)
    : mFile(folder / (section + ".json")) {
  // A link's target is replaced, not the link.
  std::error_code error;
  if (const auto target = std::filesystem::canonical(mFile, error); !error) {
    mFile = target;
  }
}

Json::Value SectionFile::Load() const {
  std::error_code error;
  if (std::filesystem::is_directory(mFile, error)) {  // opens like a file, and is empty
    Fail(mFile, "cannot be read", EISDIR);
  }
  std::ifstream file(mFile);
  if (!file) {
    if (errno != ENOENT) {
      Fail(mFile, "cannot be opened", errno);
    }
    return Json::Value(Json::objectValue);
  }
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  Json::Value document;
  std::string errors;
  if (!Json::parseFromStream(builder, file, &document, &errors)) {
    std::replace(errors.begin(), errors.end(), '\n', ' ');
    throw std::runtime_error(mFile.string() + " is left as it is, it cannot be used: " + errors);
  }
  if (!document.isObject()) {
    throw std::runtime_error(mFile.string() + " is left as it is, it is not a JSON object");
  }
  return document;
}

void SectionFile::Edit(const std::function<bool(Json::Value&)>& edit) const {
  const std::filesystem::path folder = mFile.parent_path();
  std::error_code error;
  if (std::filesystem::create_directories(folder, error); error) {
    Fail(folder, "cannot be made", error.value());
  }
  const Descriptor lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (lock.Get() < 0 || flock(lock.Get(), LOCK_EX) != 0) {
    Fail(folder, "cannot be locked", errno);
  }
  Json::Value document = Load();
  if (edit(document)) {
    Store(document);
    fsync(lock.Get());  // the new name lasts, too; the change is made even where a folder cannot be
                        // synchronised
  }
}

void SectionFile::Store(const Json::Value& document) const {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  const std::string text = Json::writeString(builder, document) + "\n";

  std::string temporary = (mFile.parent_path() / ("." + mFile.filename().string() + ".XXXXXX")).string();
  const Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
  if (file.Get() < 0) {
    Fail(temporary, "cannot be created", errno);
  }
  try {
    TakeOverAttributes(file.Get(), mFile);
    WriteAll(file.Get(), text, temporary);
    if (fsync(file.Get()) != 0 || rename(temporary.c_str(), mFile.c_str()) != 0) {
      Fail(mFile, "cannot be replaced", errno);
    }
  } catch (...) {
    unlink(temporary.c_str());
    throw;
  }
}

void StationSettings::Set(const char* key, bool value) const {
  mFile.Edit([&](Json::Value& document) {
    document[key] = value;
    return true;
  });
}

bool StationSettings::Get(const char* key) const {
  const Json::Value document = mFile.Load();
  return document[key].isBool() && document[key].asBool();
}

bool CardList::Add(const std::string& uid) const {
  const std::string wanted = ToUpper(uid);
  bool added = false;
  mFile.Edit([&](Json::Value& document) {
    Json::Value& tokens = TokensOf(document);
    added =
        std::none_of(tokens.begin(), tokens.end(), [&](const auto& token) { return UidOf(token) == wanted; });
    if (added) {
      tokens.append(Json::Value(Json::objectValue))[kUid] = wanted;
    }
    return added;
  });
  return added;
}

bool CardList::Remove(const std::string& uid) const {
  const std::string unwanted = ToUpper(uid);
  bool removed = false;
  mFile.Edit([&](Json::Value& document) {
    Json::Value& tokens = TokensOf(document);
    Json::Value kept(Json::arrayValue);
    for (const Json::Value& token : tokens) {
      // Whoever wrote it in lower case by hand wants it gone, too.
      if (ToUpper(UidOf(token)) == unwanted) {
        removed = true;
      } else {
        kept.append(token);
      }
    }
    tokens.swap(kept);
    return removed;
  });
  return removed;
}

std::vector<std::string> CardList::Uids() const {
  std::vector<std::string> uids;
  const Json::Value document = mFile.Load();
  for (const Json::Value& token : document[kTokens]) {
    if (std::string uid = UidOf(token); !uid.empty()) {
      uids.push_back(std::move(uid));
    }
  }
  return uids;
}
