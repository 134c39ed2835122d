#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "ipc/generic_control.grpc.pb.h"
#include "ipc/log_config.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"

/// What came of a request.
struct Answer {
  grpc::Status status;  ///< whether the daemon answered
  std::string refusal;  ///< why the daemon refuses; empty when it does not

  bool IsOk() const { return status.ok() && refusal.empty(); }
};

/// Makes the daemon's requests. Threads: any. Each request blocks until it is answered or the timeout is
/// over. A command to the reader may keep the daemon busy for half a minute.
class DaemonClient {
 public:
  /// A request fails at once if the daemon is not there, unless `waitsForDaemon`.
  explicit DaemonClient(const std::string& address, std::chrono::seconds timeout = std::chrono::minutes(1),
                        bool waitsForDaemon = false);

  Answer Enable();
  Answer Disable();
  Answer SetLearning(bool on);
  Answer Inject(const std::string& uid);
  Answer SetLogLevel(int level);

  /// Cancels the requests in progress and all later ones.
  void Cancel();

 private:
  Answer Ask(const std::string& refusal,
             const std::function<grpc::Status(grpc::ClientContext*, ipc::MResult*)>& call);

  const std::chrono::seconds mTimeout;
  const bool mWaitsForDaemon;
  const std::unique_ptr<ipc::GenericControl::Stub> mControl;
  const std::unique_ptr<ipc::Rfid::Stub> mRfid;
  const std::unique_ptr<ipc::LogConfig::Stub> mLogConfig;
  std::mutex mMutex;  ///< guards the next two
  std::set<grpc::ClientContext*> mCalls;
  bool mIsCancelled = false;
};
