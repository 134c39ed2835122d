#pragma once

#include <map>
#include <string>

/// The content of the RPC configuration file, validated.
struct RpcConfig {
  std::string listen;                        ///< where this daemon serves: "unix:/path" or "host:port"
  std::map<std::string, std::string> peers;  ///< peer's registered name to its address, same forms
  std::string configuration;                 ///< folder of the configuration sections

  /// Reads the file: strict JSON; unknown keys are refused. Relative paths in it start at the root, the
  /// folder above the "etc" folder that holds the file, so that a root folder can be moved. Throws
  /// Rpc::ConfigurationException that names file, key (or line and column) and reason.
  static RpcConfig Load(const std::string& path);

  /// The same, but parses `text` as if it were the content of the file at `path`.
  static RpcConfig Parse(const std::string& text, const std::string& path);
};
