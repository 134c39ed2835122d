#include "rpcclients.h"

#include <grpcpp/grpcpp.h>

#include <array>
#include <cstddef>

std::shared_ptr<grpc::Channel> MakePeerChannel(const std::string& name, const std::string& address) {
  grpc::ChannelArguments arguments;
  arguments.SetString(GRPC_ARG_DEFAULT_AUTHORITY, name);
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 2000);
  // The peers are on this station; a proxy in the environment is meant for other hosts.
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  // A peer whose process is frozen does not answer pings, so a waiting call fails before its timeout of five
  // seconds. Pings go out only while a call waits: servers disconnect clients that ping idle connections.
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, 2000);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 2000);
  return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
}

std::string StatusText(const grpc::Status& status) {
  // By number, as the protocol defines them.
  static constexpr std::array<const char*, 17> kNames{
      "OK",        "CANCELLED",      "UNKNOWN",           "INVALID_ARGUMENT",   "DEADLINE_EXCEEDED",
      "NOT_FOUND", "ALREADY_EXISTS", "PERMISSION_DENIED", "RESOURCE_EXHAUSTED", "FAILED_PRECONDITION",
      "ABORTED",   "OUT_OF_RANGE",   "UNIMPLEMENTED",     "INTERNAL",           "UNAVAILABLE",
      "DATA_LOSS", "UNAUTHENTICATED"};
  const auto code = static_cast<std::size_t>(status.error_code());
  return std::string(code < kNames.size() ? kNames[code] : "unknown status") + ": " + status.error_message();
}
