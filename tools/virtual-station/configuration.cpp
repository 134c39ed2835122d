#include "tools/virtual-station/configuration.h"

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

constexpr const char* kSettings = "settings";
constexpr const char* kLocalList = "rfid_standalone";
constexpr const char* kTokens = "Tokens";
constexpr const char* kUid = "RfidTokenUid";

[[noreturn]] void Fail(const fs::path& file, const std::string& what, int error) {
  throw std::runtime_error(file.string() + ": " + what + ": " + std::generic_category().message(error));
}

std::string UidOf(const Json::Value& token) {
  return token.isObject() && token[kUid].isString() ? token[kUid].asString() : "";
}

}  // namespace

std::string ToUpper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
  return text;
}

fs::path Configuration::FileOf(const std::string& section) const {
  const fs::path file = mFolder / (section + ".json");
  std::error_code error;
  const auto target = fs::canonical(file, error);
  return error ? file : target;
}

Json::Value Configuration::Load(const std::string& section) const {
  const auto path = FileOf(section);
  if (fs::is_directory(path)) {  // a folder opens like a file, and is empty
    Fail(path, "cannot be read", EISDIR);
  }
  std::ifstream file(path);
  if (!file) {
    if (errno != ENOENT) {
      Fail(path, "cannot be opened", errno);
    }
    return Json::Value(Json::objectValue);
  }
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  Json::Value document;
  std::string errors = "it is not a JSON object";
  if (!Json::parseFromStream(builder, file, &document, &errors) || !document.isObject()) {
    std::replace(errors.begin(), errors.end(), '\n', ' ');
    throw std::runtime_error(path.string() + " is left as it is, it cannot be used: " + errors);
  }
  return document;
}

void Configuration::Edit(const std::string& section, const std::function<bool(Json::Value&)>& edit) const {
  const auto folder = FileOf(section).parent_path();
  fs::create_directories(folder);
  const std::unique_ptr<FILE, int (*)(FILE*)> lock(fopen(folder.c_str(), "re"), fclose);
  if (!lock || flock(fileno(lock.get()), LOCK_EX) != 0) {
    Fail(folder, "cannot be locked", errno);
  }
  Json::Value document = Load(section);
  if (edit(document)) {
    Store(FileOf(section), document);
  }
}

void Configuration::Store(const fs::path& file, const Json::Value& document) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  const fs::path temporary = file.parent_path() / ("." + file.filename().string() + ".new");
  std::ofstream stream(temporary);
  stream << Json::writeString(builder, document) << "\n";
  stream.close();
  if (!stream) {
    Fail(temporary, "cannot be written", errno);
  }
  if (fs::exists(file)) {
    fs::permissions(temporary, fs::status(file).permissions());
  }
  fs::rename(temporary, file);
}

bool Configuration::IsOn(const char* key) const {
  const Json::Value document = Load(kSettings);
  return document[key].isBool() && document[key].asBool();
}

void Configuration::Switch(const char* key, bool on) const {
  Edit(kSettings, [&](Json::Value& document) {
    document[key] = on;
    return true;
  });
}

std::vector<std::string> Configuration::PermittedUids() const {
  std::vector<std::string> uids;
  const Json::Value document = Load(kLocalList);
  for (const Json::Value& token : document[kTokens]) {
    if (std::string uid = UidOf(token); !uid.empty()) {
      uids.push_back(std::move(uid));
    }
  }
  return uids;
}

bool Configuration::Permit(const std::string& uid, bool on) const {
  const std::string wanted = ToUpper(uid);
  bool isChanged = false;
  Edit(kLocalList, [&](Json::Value& document) {
    Json::Value& tokens = document[kTokens];
    if (!tokens.isNull() && !tokens.isArray()) {
      throw std::runtime_error("rfid_standalone.json is left as it is, its \"Tokens\" is not an array");
    }
    const bool isListed =
        std::any_of(tokens.begin(), tokens.end(), [&](const auto& token) { return UidOf(token) == wanted; });
    Json::Value kept(Json::arrayValue);
    for (const Json::Value& token : tokens) {
      if (on || ToUpper(UidOf(token)) != wanted) {  // an entry written by hand in lower case goes as well
        kept.append(token);
      }
    }
    isChanged = on ? !isListed : kept.size() != tokens.size();
    if (on) {
      kept.append(Json::Value(Json::objectValue))[kUid] = wanted;
    }
    tokens.swap(kept);
    return isChanged;
  });
  return isChanged;
}
