#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ipc/generic_control.grpc.pb.h"
#include "ipc/log_config.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"
#include "tools/harness/process.h"

/// The daemon's clients in one: the supervisor and the daemons that listen for tokens. Made with the
/// generated stubs alone, as any other daemon would be.
///
/// Threads: any; what is notified arrives on threads of its own.
class Supervisor {
 public:
  explicit Supervisor(const std::string& address);
  ~Supervisor();
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  /// "Ok", "Illegal", or the name of the status that the call ended with.
  std::string Enable();
  std::string Disable();
  std::string Learning(bool enable);
  std::string Inject(const std::string& uid);
  std::string SetLogLevel(ipc::ELogLevel level);

  /// What was notified since the last Clear, in words: "Enabled", "alive", "token 04A1B2C3
  /// ERfidUidNotInList", "learning 04A1B2C3"; at the end of the streams "states ended with status 14" and
  /// "tokens ended". Alive messages are only in it when asked for.
  std::vector<std::string> Notified(bool withAlive = false) const;
  std::vector<std::string> Take();  ///< what was notified, alive messages too; clears
  void Clear();
  bool WaitFor(const std::string& notification, size_t count = 1,
               std::chrono::seconds limit = kLongestWait) const;

 private:
  void Add(const std::string& what);
  void ListenToStates();
  void ListenToTokens();

  std::unique_ptr<ipc::GenericControl::Stub> mControl;
  std::unique_ptr<ipc::Rfid::Stub> mRfid;
  std::unique_ptr<ipc::LogConfig::Stub> mLogConfig;
  grpc::ClientContext mStateContext;
  grpc::ClientContext mTokenContext;
  mutable std::mutex mMutex;
  mutable std::condition_variable mArrived;
  std::vector<std::string> mNotified;
  std::thread mStateThread;
  std::thread mTokenThread;
};
