#pragma once

#include <memory>
#include <string>

#include "framework/rpc.h"

/// Passes the RPC framework's own log lines to the logger given to GrpcBackend::SetLogger. Any thread.
/// Without a logger they are dropped; nothing goes to standard error.
namespace RpcLogging {

void SetLogger(std::shared_ptr<Rpc::ILogger> logger);

/// Takes over the log output of gRPC and protobuf. Once per process; later calls do nothing.
void CaptureLibraries();

void Error(const std::string& message) noexcept;
void Warning(const std::string& message) noexcept;
void Info(const std::string& message) noexcept;

/// Remembers the last error that gRPC logs on this thread during its lifetime: gRPC's calls only report that
/// they failed.
class CErrorCapture {
 public:
  CErrorCapture();
  ~CErrorCapture();
  CErrorCapture(const CErrorCapture&) = delete;
  CErrorCapture& operator=(const CErrorCapture&) = delete;

  /// The system's reason from the last error; "unknown reason" when there is none.
  std::string Reason() const;

 private:
  std::string mLast;
};

}  // namespace RpcLogging
