#pragma once

#include "framework/log.h"
#include "framework/rpc.h"

namespace Rpc {

/// Writes the RPC framework's output into the daemon's log, each message at its own level.
class HubLogger : public ILogger {
 public:
  void Critical(const std::string& message) override { Log::Critical("[RPC] {}", message); }
  void Error(const std::string& message) override { Log::Error("[RPC] {}", message); }
  void Warning(const std::string& message) override { Log::Warning("[RPC] {}", message); }
  void Info(const std::string& message) override { Log::Info("[RPC] {}", message); }
  void Debug(const std::string& message) override { Log::Debug("[RPC] {}", message); }
  void Trace(const std::string& message) override { Log::Trace("[RPC] {}", message); }
};

}  // namespace Rpc
