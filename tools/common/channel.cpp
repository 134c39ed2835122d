#include "tools/common/channel.h"

#include <grpc/support/log.h>

#include <cstdlib>
#include <filesystem>

RpcConfig LoadRpcConfig(const std::string& root) {
  return RpcConfig::Load((std::filesystem::path(root) / "etc" / "plex.json").string());
}

void SilenceRpcLibrary() {
  if (std::getenv("GRPC_VERBOSITY") == nullptr) {
    gpr_set_log_function([](gpr_log_func_args* /*line*/) {});
  }
}

std::shared_ptr<grpc::Channel> OpenChannel(const std::string& address, const std::string& name) {
  grpc::ChannelArguments arguments;
  // The daemon selects the service by the request's authority.
  arguments.SetString(GRPC_ARG_DEFAULT_AUTHORITY, name);
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 1000);
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
}

std::string ReasonOf(const grpc::Status& status) {
  // "failed to connect to all addresses; last error: UNKNOWN: unix:/run/x.sock: No such file or directory"
  const std::string& text = status.error_message();
  if (text.empty()) {  // another server answers
    return status.error_code() == grpc::StatusCode::UNIMPLEMENTED
               ? "the server there has no such service"
               : "it ended with status " + std::to_string(status.error_code());
  }
  if (text.find("before receiving SETTINGS frame") !=
      std::string::npos) {  // connected, but the server has sent nothing
    return "it does not answer";
  }
  // "DNS resolution failed for nowhere:7: C-ares status is not ARES_SUCCESS qtype=A ...: Domain name not
  // found"
  const auto isConnecting =
      text.find("; last error: ") != std::string::npos || text.rfind("DNS resolution failed", 0) == 0;
  const auto reason = text.rfind(": ");
  return isConnecting ? text.substr(reason + 2) : text;
}
