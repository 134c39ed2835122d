#pragma once

#include <map>
#include <string>

/// What the RPC configuration file says, checked as a whole.
struct RpcConfig {
  std::string listen;                        ///< where this daemon serves: "unix:/path" or "host:port"
  std::map<std::string, std::string> peers;  ///< peer's registered name to its address, same forms
  std::string configuration;                 ///< folder of the configuration sections

  /// Reads the file; strict JSON, unknown keys refused. Relative paths in it are relative to the file's root:
  /// the folder above the "etc" folder that holds it, so that a root folder can be moved about. Throws
  /// Rpc::ConfigurationException naming file, key (or line and column) and reason.
  static RpcConfig Load(const std::string& path);

  /// The same for `text`, as if the file at `path` said it.
  static RpcConfig Parse(const std::string& text, const std::string& path);
};
