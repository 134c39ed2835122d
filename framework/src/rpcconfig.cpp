#include "framework/rpcconfig.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <system_error>

#include "framework/rpc.h"
#include "strictjson.h"

namespace {

constexpr std::size_t kMaxFileSize = std::size_t{1024} * 1024;
constexpr std::size_t kMaxSocketPath = sizeof(sockaddr_un::sun_path) - 1;
// A listen socket is made under a name of this length in its folder first (see CListenSocket).
constexpr std::size_t kTemporaryName = sizeof("/.XXXXXX/s") - 1;

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
  return "of an unknown type";
}

std::string Quoted(const std::string& text) {
  return "'" + text + "'";
}

// An error line of one line, whatever names and values the file has.
std::string OneLine(std::string text) {
  for (char& c : text) {
    c = static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c;
  }
  return text;
}

bool IsLoopback(const std::string& host) {
  in_addr v4{};
  if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
    return (ntohl(v4.s_addr) >> 24) == 127;
  }
  return host == "localhost" || host == "[::1]";
}

class CRpcConfigLoader {
 public:
  explicit CRpcConfigLoader(const std::string& path) : mPath(path) {}

  RpcConfig Load() const { return Parse(ReadFile()); }

  RpcConfig Parse(const std::string& text) const {
    const Json::Value document = ParseJson(text);
    static const std::set<std::string> known{"listen", "allowRemote", "peers", "configuration"};
    for (const std::string& key : document.getMemberNames()) {
      if (known.count(key) == 0) {
        Fail(Quoted(key), "unknown key");
      }
    }
    RpcConfig config;
    const bool allowRemote = document.isMember("allowRemote") &&
                             Checked(document["allowRemote"], "allowRemote", Json::booleanValue).asBool();
    config.listen = ListenAddress(Text(document, "listen"), allowRemote);
    if (document.isMember("peers")) {
      const Json::Value& peers = Checked(document["peers"], "peers", Json::objectValue);
      for (const std::string& name : peers.getMemberNames()) {
        const std::string key = "peers." + (name.empty() ? "''" : name);
        if (name.empty()) {
          Fail(key, "the peer has no name");
        }
        config.peers[name] = Address(Checked(peers[name], key, Json::stringValue).asString(), key);
      }
    }
    config.configuration = Path(Text(document, "configuration"), "configuration").string();
    return config;
  }

 private:
  [[noreturn]] void Fail(const std::string& where, const std::string& reason) const {
    throw Rpc::ConfigurationException(OneLine(mPath + ": " + where + ": " + reason));
  }

  std::string ReadFile() const {
    struct stat status {};
    if (stat(mPath.c_str(), &status) != 0) {
      Fail("cannot be read", std::generic_category().message(errno));
    }
    if (!S_ISREG(status.st_mode)) {
      Fail("cannot be read", S_ISDIR(status.st_mode) ? "it is a folder" : "it is no regular file");
    }
    errno = 0;
    std::ifstream file(mPath, std::ios::binary);
    if (!file) {
      Fail("cannot be read", std::generic_category().message(errno));
    }
    std::string text(kMaxFileSize + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (file.bad()) {
      Fail("cannot be read", std::generic_category().message(errno));
    }
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > kMaxFileSize) {
      Fail("cannot be read", "it is larger than 1 MiB");
    }
    return text;
  }

  Json::Value ParseJson(const std::string& text) const {
    try {
      return ParseStrictJson(text);
    } catch (const std::exception& e) {
      throw Rpc::ConfigurationException(OneLine(mPath + ": " + e.what()));
    }
  }

  const Json::Value& Checked(const Json::Value& value, const std::string& key, Json::ValueType type) const {
    if (value.type() != type) {
      Fail(key, "must be " + std::string(TypeName(Json::Value(type))) + ", is " + TypeName(value));
    }
    return value;
  }

  std::string Text(const Json::Value& document, const std::string& key) const {
    if (!document.isMember(key)) {
      Fail(key, "missing");
    }
    return Checked(document[key], key, Json::stringValue).asString();
  }

  std::filesystem::path Path(const std::string& text, const std::string& key) const {
    if (text.empty()) {
      Fail(key, "the path is empty");
    }
    for (const char c : text) {
      if (static_cast<unsigned char>(c) < 0x20) {
        Fail(key, "the path " + Quoted(text) + " has control characters");
      }
    }
    return (Root() / text).lexically_normal();
  }

  std::filesystem::path Root() const {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(mPath, error);
    return absolute.lexically_normal().parent_path().parent_path();
  }

  std::string Address(const std::string& text, const std::string& key) const {
    static const std::string scheme = "unix:";
    if (text.compare(0, scheme.size(), scheme) == 0) {
      const std::filesystem::path path = Path(text.substr(scheme.size()), key);
      if (!path.has_filename()) {
        Fail(key, Quoted(text) + " names a folder, not a socket");
      }
      if (path.native().size() > kMaxSocketPath) {
        Fail(key, "the socket's path " + Quoted(path.string()) + " has " +
                      std::to_string(path.native().size()) + " characters, " +
                      std::to_string(kMaxSocketPath) + " is the most");
      }
      return scheme + path.string();
    }
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || !IsHost(text.substr(0, colon))) {
      Fail(key, Quoted(text) + " is neither unix:PATH nor HOST:PORT");
    }
    const std::string port = text.substr(colon + 1);
    const bool digits =
        !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
    const int number = digits ? std::atoi(port.c_str()) : 0;
    if (number < 1 || number > 65535) {
      Fail(key, "the port " + Quoted(port) + " is not in 1 to 65535");
    }
    return text.substr(0, colon + 1) + std::to_string(number);
  }

  static bool IsHost(const std::string& host) {
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
      in6_addr v6{};
      return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &v6) == 1;
    }
    static const char* const allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-";
    return !host.empty() && host.find_first_not_of(allowed) == std::string::npos;
  }

  std::string ListenAddress(const std::string& text, bool allowRemote) const {
    std::string address = Address(text, "listen");
    if (address.compare(0, 5, "unix:") == 0) {
      const std::filesystem::path path = address.substr(5);
      if (path.parent_path().native().size() + kTemporaryName > kMaxSocketPath) {
        Fail("listen",
             "the path of the socket's folder " + Quoted(path.parent_path().string()) + " is too long");
      }
    } else if (const std::string host = address.substr(0, address.rfind(':'));
               !allowRemote && !IsLoopback(host)) {
      Fail("listen", "the host " + Quoted(host) +
                         " is no loopback address; whoever reaches it may start a charge, so it needs "
                         "\"allowRemote\": true");
    }
    return address;
  }

  const std::string mPath;
};

}  // namespace

RpcConfig RpcConfig::Load(const std::string& path) {
  return CRpcConfigLoader(path).Load();
}

RpcConfig RpcConfig::Parse(const std::string& text, const std::string& path) {
  return CRpcConfigLoader(path).Parse(text);
}
