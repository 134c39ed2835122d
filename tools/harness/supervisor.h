#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/generic_control.grpc.pb.h"
#include "ipc/log_config.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"
#include "tools/common/eventually.h"
#include "tools/common/subscriber.h"

/// The daemon's clients in one: the supervisor, and a daemon that subscribes to tokens. Subscribes again when
/// a stream ends.
///
/// Threads: any. Notifications arrive on its own threads.
class Supervisor {
 public:
  explicit Supervisor(const std::string& address);
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  /// "Ok", "Illegal", or the name of the status that the call ended with.
  std::string Enable();
  std::string Disable();
  std::string Learning(bool enable);
  std::string Inject(const std::string& uid);
  std::string SetLogLevel(ipc::ELogLevel level);

  /// What was notified since the last Clear, as text: "Enabled", "alive", "token 04A1B2C3 ERfidUidNotInList",
  /// "learning 04A1B2C3", "listening" when the subscription to tokens is confirmed; "states ended with status
  /// 14" and "tokens ended" at the end of the streams. Alive messages are left out by default.
  std::vector<std::string> Notified(bool withAlive = false) const;
  std::vector<std::string> Take();  ///< the same with alive messages, and clears
  void Clear();
  bool WaitFor(const std::string& notification, size_t count = 1,
               std::chrono::seconds limit = kLongestWait) const;

 private:
  void Add(const std::string& what);

  std::unique_ptr<ipc::GenericControl::Stub> mControl;
  std::unique_ptr<ipc::Rfid::Stub> mRfid;
  std::unique_ptr<ipc::LogConfig::Stub> mLogConfig;
  mutable std::mutex mMutex;
  mutable std::condition_variable mArrived;
  std::vector<std::string> mNotified;
  Subscriber<ipc::GenericControl, ipc::MGenericControlNotification> mStates;  // last: these call Add
  Subscriber<ipc::Rfid, ipc::MRfidNotification> mTokens;
};
