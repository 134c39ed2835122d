#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "framework/rpc.h"

class IDiagnosticsTransport;

namespace grpc {
class Channel;
class Status;
}  // namespace grpc

/// A channel to the peer's service with this registered name. Connects at the first use and reconnects by
/// itself.
std::shared_ptr<grpc::Channel> MakePeerChannel(const std::string& name, const std::string& address);

/// "UNAVAILABLE: the peer's text".
std::string StatusText(const grpc::Status& status);

std::shared_ptr<IClient<IFeedback>> CreateFeedbackClient(std::shared_ptr<CRpcQueue> queue,
                                                         const std::string& name, const std::string& address);

/// `timeout` is for one call, connecting included.
std::shared_ptr<IDiagnosticsTransport> CreateDiagnosticsTransport(
    std::shared_ptr<CRpcQueue> queue, const std::string& name, const std::string& address,
    std::chrono::milliseconds timeout = std::chrono::seconds(5));
