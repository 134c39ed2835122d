#include "rpclogging.h"

#include <absl/synchronization/mutex.h>
#include <google/protobuf/stubs/logging.h>
#include <grpc/support/log.h>

#include <array>
#include <exception>
#include <mutex>

namespace RpcLogging {
namespace {

struct Holder {
  std::mutex mutex;
  std::shared_ptr<Rpc::ILogger> logger;
};

// Never destroyed: gRPC's threads may still log while the process exits.
Holder& TheHolder() {
  static auto* const holder = new Holder;
  return *holder;
}

thread_local std::string* tCapture = nullptr;

using Operation = void (Rpc::ILogger::*)(const std::string&);

void Write(Operation operation, const std::string& message) noexcept {
  try {
    Holder& holder = TheHolder();
    std::shared_ptr<Rpc::ILogger> logger;
    {
      const std::lock_guard<std::mutex> lock(holder.mutex);
      logger = holder.logger;
    }
    if (logger) {
      ((*logger).*operation)(message);
    }
  } catch (const std::exception&) {
    // There is nowhere to report a line that cannot be written.
  }
}

void OnGrpcLog(gpr_log_func_args* args) {
  if (args->severity == GPR_LOG_SEVERITY_ERROR) {
    if (tCapture != nullptr) {
      *tCapture = args->message;
    }
    Write(&Rpc::ILogger::Error, args->message);
  } else if (args->severity == GPR_LOG_SEVERITY_INFO) {
    // gRPC's info messages are per connection; we log them at debug.
    Write(&Rpc::ILogger::Debug, args->message);
  } else {
    Write(&Rpc::ILogger::Trace, args->message);
  }
}

void OnProtobufLog(google::protobuf::LogLevel level, const char*, int, const std::string& message) {
  static constexpr std::array<Operation, 4> kByLevel{&Rpc::ILogger::Debug, &Rpc::ILogger::Warning,
                                                     &Rpc::ILogger::Error, &Rpc::ILogger::Critical};
  static_assert(google::protobuf::LOGLEVEL_FATAL == kByLevel.size() - 1);
  Write(kByLevel.at(level), message);
}

}  // namespace

void SetLogger(std::shared_ptr<Rpc::ILogger> logger) {
  CaptureLibraries();
  Holder& holder = TheHolder();
  const std::lock_guard<std::mutex> lock(holder.mutex);
  holder.logger.swap(logger);
}

void CaptureLibraries() {
  static const bool captured = [] {
    gpr_set_log_function(&OnGrpcLog);
    google::protobuf::SetLogHandler(&OnProtobufLog);
    // Debian's gRPC checks the order of its locks, which costs memory and time at each lock.
    absl::SetMutexDeadlockDetectionMode(absl::OnDeadlockCycle::kIgnore);
    return true;
  }();
  static_cast<void>(captured);
}

void Error(const std::string& message) noexcept {
  Write(&Rpc::ILogger::Error, message);
}
void Warning(const std::string& message) noexcept {
  Write(&Rpc::ILogger::Warning, message);
}
void Info(const std::string& message) noexcept {
  Write(&Rpc::ILogger::Info, message);
}

CErrorCapture::CErrorCapture() {
  tCapture = &mLast;
}

CErrorCapture::~CErrorCapture() {
  tCapture = nullptr;
}

std::string CErrorCapture::Reason() const {
  static const std::string key = "os_error:\"";
  const std::size_t start = mLast.find(key);
  if (start == std::string::npos) {
    return mLast.empty() ? "unknown reason" : mLast;
  }
  const std::size_t text = start + key.size();
  return mLast.substr(text, mLast.find('"', text) - text);
}

}  // namespace RpcLogging
