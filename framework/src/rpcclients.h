#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "framework/diagnostics.h"
#include "framework/rpc.h"

namespace grpc {
class Channel;
class Status;
}  // namespace grpc

/// A channel to a peer's service, which is asked for by its registered name. Connects when it is first used,
/// and again by itself.
std::shared_ptr<grpc::Channel> MakePeerChannel(const std::string& name, const std::string& address);

/// "UNAVAILABLE: the peer's text".
std::string StatusText(const grpc::Status& status);

std::shared_ptr<IClient<IFeedback>> CreateFeedbackClient(const std::string& name, const std::string& address);

/// `timeout` is for one value, connecting included.
std::shared_ptr<IDiagnosticsTransport> CreateDiagnosticsTransport(
    const std::string& name, const std::string& address,
    std::chrono::milliseconds timeout = std::chrono::seconds(5));
