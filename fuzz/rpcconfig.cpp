// etc/plex.json is accepted as a whole, or refused with one line that names the file.
#include "framework/rpcconfig.h"

#include <sys/un.h>

#include "framework/rpc.h"
#include "fuzz/check.h"

namespace {

bool Begins(const std::string& text, const std::string& with) {
  return text.rfind(with, 0) == 0;
}

bool IsAddress(const std::string& address) {
  if (Begins(address, "unix:")) {
    return address[5] == '/' && address.back() != '/' && address.find('\0') == std::string::npos &&
           address.size() - 5 < sizeof(sockaddr_un::sun_path);
  }
  const auto colon = address.rfind(':');
  const int port = colon == std::string::npos ? 0 : std::stoi(address.substr(colon + 1));
  return colon > 0 && port >= 1 && port <= 65535;
}

bool IsLocal(const std::string& address) {
  return Begins(address, "unix:") || Begins(address, "127.") || Begins(address, "localhost:") ||
         Begins(address, "[::1]:");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = "/root/etc/plex.json";
  const std::string text = TextOf(data, size);
  try {
    const auto config = RpcConfig::Parse(text, path);
    FUZZ_CHECK(IsAddress(config.listen) && config.configuration[0] == '/');
    FUZZ_CHECK(IsLocal(config.listen) || text.find("true") != std::string::npos);
    for (const auto& [name, address] : config.peers) {
      FUZZ_CHECK(!name.empty() && IsAddress(address));
    }
  } catch (const Rpc::ConfigurationException& e) {
    const std::string message = e.what();
    FUZZ_CHECK(Begins(message, path + ": ") && message.size() > path.size() + 2);
    for (const char c : message) {
      FUZZ_CHECK(static_cast<uint8_t>(c) >= 0x20 && c != 0x7F);
    }
  }
  return 0;
}
