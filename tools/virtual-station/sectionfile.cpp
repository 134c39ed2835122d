#include "tools/virtual-station/sectionfile.h"

#include <json/reader.h>
#include <json/writer.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace {

[[noreturn]] void Fail(const fs::path& file, const std::string& what, int error) {
  throw std::runtime_error(file.string() + ": " + what + ": " + std::generic_category().message(error));
}

constexpr const char* kTokens = "Tokens";
constexpr const char* kUid = "RfidTokenUid";

std::string UidOf(const Json::Value& token) {
  return token.isObject() && token[kUid].isString() ? token[kUid].asString() : "";
}

/// The document's list; creates it if it is missing. Throws if the key has another type.
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

std::string ToUpper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
  return text;
}

SectionFile::SectionFile(const fs::path& folder, const std::string& section)
    : mFile(folder / (section + ".json")) {
  std::error_code ignored;
  if (const auto target = fs::canonical(mFile, ignored); !ignored) {
    mFile = target;  // a link stays, its target is replaced
  }
}

Json::Value SectionFile::Load() const {
  if (fs::is_directory(mFile)) {  // a folder opens like a file, and is empty
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
  const fs::path folder = mFile.parent_path();
  fs::create_directories(folder);
  const std::unique_ptr<FILE, int (*)(FILE*)> lock(fopen(folder.c_str(), "re"), fclose);
  if (!lock || flock(fileno(lock.get()), LOCK_EX) != 0) {
    Fail(folder, "cannot be locked", errno);
  }
  Json::Value document = Load();
  if (edit(document)) {
    Store(document);
  }
}

void SectionFile::Store(const Json::Value& document) const {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  const fs::path temporary = mFile.parent_path() / ("." + mFile.filename().string() + ".new");
  std::ofstream file(temporary);
  file << Json::writeString(builder, document) << "\n";
  file.close();
  if (!file) {
    Fail(temporary, "cannot be written", errno);
  }
  if (fs::exists(mFile)) {
    fs::permissions(temporary, fs::status(mFile).permissions());
  }
  fs::rename(temporary, mFile);
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
      // An entry written by hand in lower case goes as well.
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
