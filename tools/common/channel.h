#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <string>

#include "framework/rpcconfig.h"

/// The registered names of the daemon's services and of the station's diagnostics service.
constexpr const char* kControlService = "RfidGenCtrl";
constexpr const char* kRfidService = "Rfid";
constexpr const char* kLogService = "RfidLog";
constexpr const char* kDiagnosticsService = "Diagnostics";

/// Reads the RPC configuration file of the station below `root`. Throws Rpc::ConfigurationException.
RpcConfig LoadRpcConfig(const std::string& root);

/// Makes a channel to the service registered under `name` at `address` ("unix:/path" or "host:port"). It
/// connects at the first call, and again within a second when the service comes back.
std::shared_ptr<grpc::Channel> OpenChannel(const std::string& address, const std::string& name);

/// Keeps the RPC library from writing to standard error, where a tool prints one line for a failure. The
/// environment variable GRPC_VERBOSITY allows it again.
void SilenceRpcLibrary();

/// The reason why a call failed, without the RPC library's words around it.
std::string ReasonOf(const grpc::Status& status);
