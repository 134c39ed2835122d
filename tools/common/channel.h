#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <string>

#include "framework/rpcconfig.h"

/// The names under which the daemon registers its services, and that of the station's diagnostics service.
constexpr const char* kControlService = "RfidGenCtrl";
constexpr const char* kRfidService = "Rfid";
constexpr const char* kLogService = "RfidLog";
constexpr const char* kDiagnosticsService = "Diagnostics";

/// The RPC configuration file of the station below `root`. Throws Rpc::ConfigurationException.
RpcConfig LoadRpcConfig(const std::string& root);

/// A channel to the service registered under `name` at `address` ("unix:/path" or "host:port"). Connects at
/// the first call and again, within a second, when the service comes back.
std::shared_ptr<grpc::Channel> OpenChannel(const std::string& address, const std::string& name);

/// From now on the RPC library says nothing on standard error of its own, where a tool has one line for what
/// failed. Not when the environment asks for it by GRPC_VERBOSITY.
void SilenceRpcLibrary();

/// Why a call failed, without the RPC library's own words around it.
std::string ReasonOf(const grpc::Status& status);
