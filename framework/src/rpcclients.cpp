#include "rpcclients.h"

#include <grpcpp/grpcpp.h>

namespace {

const char* CodeName(grpc::StatusCode code) {
  switch (code) {
    case grpc::StatusCode::OK:
      return "OK";
    case grpc::StatusCode::CANCELLED:
      return "CANCELLED";
    case grpc::StatusCode::UNKNOWN:
      return "UNKNOWN";
    case grpc::StatusCode::INVALID_ARGUMENT:
      return "INVALID_ARGUMENT";
    case grpc::StatusCode::DEADLINE_EXCEEDED:
      return "DEADLINE_EXCEEDED";
    case grpc::StatusCode::NOT_FOUND:
      return "NOT_FOUND";
    case grpc::StatusCode::ALREADY_EXISTS:
      return "ALREADY_EXISTS";
    case grpc::StatusCode::PERMISSION_DENIED:
      return "PERMISSION_DENIED";
    case grpc::StatusCode::UNAUTHENTICATED:
      return "UNAUTHENTICATED";
    case grpc::StatusCode::RESOURCE_EXHAUSTED:
      return "RESOURCE_EXHAUSTED";
    case grpc::StatusCode::FAILED_PRECONDITION:
      return "FAILED_PRECONDITION";
    case grpc::StatusCode::ABORTED:
      return "ABORTED";
    case grpc::StatusCode::OUT_OF_RANGE:
      return "OUT_OF_RANGE";
    case grpc::StatusCode::UNIMPLEMENTED:
      return "UNIMPLEMENTED";
    case grpc::StatusCode::INTERNAL:
      return "INTERNAL";
    case grpc::StatusCode::UNAVAILABLE:
      return "UNAVAILABLE";
    case grpc::StatusCode::DATA_LOSS:
      return "DATA_LOSS";
    case grpc::StatusCode::DO_NOT_USE:
      break;
  }
  return "unknown status";
}

}  // namespace

std::shared_ptr<grpc::Channel> MakePeerChannel(const std::string& name, const std::string& address) {
  grpc::ChannelArguments arguments;
  arguments.SetString(GRPC_ARG_DEFAULT_AUTHORITY, name);
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 2000);
  // The peers are on this station; a proxy in the environment is for others.
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  // A peer whose process is frozen does not answer pings: the call that waits fails before its five seconds
  // are over. Pings go out only while a call waits, because servers disconnect clients that ping idle
  // connections.
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, 2000);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 2000);
  return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
}

std::string StatusText(const grpc::Status& status) {
  return std::string(CodeName(status.error_code())) + ": " + status.error_message();
}
