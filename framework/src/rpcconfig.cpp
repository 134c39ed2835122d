#include "framework/rpcconfig.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/un.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <stdexcept>

#include "framework/rpc.h"
#include "strictjson.h"
#include "wholefile.h"

namespace {

using std::filesystem::path;

constexpr std::size_t kLargestFileMiB = 1;
constexpr std::size_t kLongestSocketPath = sizeof(sockaddr_un::sun_path) - 1;
constexpr std::string_view kTemporaryName = "/.XXXXXX/s";  // where CListenSocket first makes the socket
constexpr std::string_view kUnixScheme = "unix:";

/// Keeps an error on one line, even if names or values in the file contain line breaks.
std::string OneLine(std::string text) {
  for (char& c : text) {
    c = static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c;
  }
  return text;
}

[[noreturn]] void Fail(const std::string& where, const std::string& reason) {
  throw std::runtime_error(OneLine(where + ": " + reason));
}

const Json::Value& Checked(const Json::Value& value, const std::string& key, Json::ValueType type) {
  if (value.type() != type) {
    Fail(key, fmt::format("must be {}, is {}", JsonTypeName(type), JsonTypeName(value.type())));
  }
  return value;
}

std::string Text(const Json::Value& document, const std::string& key) {
  if (!document.isMember(key)) {
    Fail(key, "missing");
  }
  return Checked(document[key], key, Json::stringValue).asString();
}

path PathBelow(const path& root, const std::string& text, const std::string& key) {
  if (text.empty()) {
    Fail(key, "the path is empty");
  }
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20) {
      Fail(key, "the path '" + text + "' has control characters");
    }
  }
  return (root / text).lexically_normal();
}

std::string UnixAddress(const path& root, const std::string& text, const std::string& key) {
  const path socket = PathBelow(root, text.substr(kUnixScheme.size()), key);
  if (!socket.has_filename()) {
    Fail(key, "'" + text + "' names a folder, not a socket");
  }
  if (const auto length = socket.native().size(); length > kLongestSocketPath) {
    Fail(key, fmt::format("the socket's path '{}' has {} characters, the limit is {}", socket.string(),
                          length, kLongestSocketPath));
  }
  return std::string(kUnixScheme) + socket.string();
}

bool IsHost(const std::string& host) {
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    in6_addr v6{};
    return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &v6) == 1;
  }
  static const char* const kAllowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-";
  return !host.empty() && host.find_first_not_of(kAllowed) == std::string::npos;
}

std::string Address(const path& root, const std::string& text, const std::string& key) {
  if (text.starts_with(kUnixScheme)) {
    return UnixAddress(root, text, key);
  }
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || !IsHost(text.substr(0, colon))) {
    Fail(key, "'" + text + "' is neither unix:PATH nor HOST:PORT");
  }
  const std::string port = text.substr(colon + 1);
  const bool isNumber = port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
  const int number = isNumber ? std::atoi(port.c_str()) : 0;
  if (number < 1 || number > 65535) {
    Fail(key, "the port '" + port + "' is not in 1 to 65535");
  }
  return fmt::format("{}:{}", text.substr(0, colon), number);
}

bool IsLoopback(const std::string& host) {
  in_addr v4{};
  if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
    return (ntohl(v4.s_addr) >> 24) == 127;
  }
  return host == "localhost" || host == "[::1]";
}

std::string ListenAddress(const path& root, const std::string& text, bool allowRemote) {
  std::string address = Address(root, text, "listen");
  if (address.starts_with(kUnixScheme)) {
    const path folder = path(address.substr(kUnixScheme.size())).parent_path();
    if (folder.native().size() + kTemporaryName.size() > kLongestSocketPath) {
      Fail("listen", "the path of the socket's folder '" + folder.string() + "' is too long");
    }
  } else if (const std::string host = address.substr(0, address.rfind(':'));
             !allowRemote && !IsLoopback(host)) {
    Fail("listen", "the host '" + host +
                       "' is not a loopback address; whoever reaches it can start a charge, so it needs "
                       "\"allowRemote\": true");
  }
  return address;
}

RpcConfig ParseBelow(const path& root, const std::string& text) {
  const Json::Value document = ParseStrictJson(text);
  static const std::set<std::string> kKeys{"listen", "allowRemote", "peers", "configuration"};
  for (const std::string& key : document.getMemberNames()) {
    if (kKeys.count(key) == 0) {
      Fail("'" + key + "'", "unknown key");
    }
  }
  RpcConfig config;
  const bool allowRemote = document.isMember("allowRemote") &&
                           Checked(document["allowRemote"], "allowRemote", Json::booleanValue).asBool();
  config.listen = ListenAddress(root, Text(document, "listen"), allowRemote);
  if (document.isMember("peers")) {
    const Json::Value& peers = Checked(document["peers"], "peers", Json::objectValue);
    for (const std::string& name : peers.getMemberNames()) {
      if (name.empty()) {
        Fail("peers.''", "the peer has no name");
      }
      const std::string key = "peers." + name;
      config.peers[name] = Address(root, Checked(peers[name], key, Json::stringValue).asString(), key);
    }
  }
  config.configuration = PathBelow(root, Text(document, "configuration"), "configuration").string();
  return config;
}

[[noreturn]] void FailIn(const std::string& file, const std::string& error) {
  throw Rpc::ConfigurationException(OneLine(file + ": " + error));
}

}  // namespace

RpcConfig RpcConfig::Load(const std::string& path) {
  std::string text;
  try {
    text = ReadWholeFile(path, kLargestFileMiB);
  } catch (const std::exception& e) {
    FailIn(path, std::string("cannot be read: ") + e.what());
  }
  return Parse(text, path);
}

RpcConfig RpcConfig::Parse(const std::string& text, const std::string& path) {
  try {
    std::error_code error;
    const auto file = std::filesystem::absolute(path, error).lexically_normal();
    return ParseBelow(file.parent_path().parent_path(), text);
  } catch (const std::exception& e) {
    FailIn(path, e.what());
  }
}
