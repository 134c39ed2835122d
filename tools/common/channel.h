#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <string>

#include "framework/rpcconfig.h"

/// The RPC configuration file of the station below `root`. Throws Rpc::ConfigurationException.
RpcConfig LoadRpcConfig(const std::string& root);

/// A channel to the service registered under `name` at `address` ("unix:/path" or "host:port"). Connects at
/// the first call and again, within a second, when the service comes back.
std::shared_ptr<grpc::Channel> OpenChannel(const std::string& address, const std::string& name);

/// Why a call failed, without the RPC library's own words around it.
std::string ReasonOf(const grpc::Status& status);
