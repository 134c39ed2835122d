#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "tools/common/daemonclient.h"
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

  /// "Ok", "Illegal", or the status that the call ended with.
  std::string Enable() { return Text(mDaemon.Enable()); }
  std::string Disable() { return Text(mDaemon.Disable()); }
  std::string Learning(bool on) { return Text(mDaemon.SetLearning(on)); }
  std::string Inject(const std::string& uid) { return Text(mDaemon.Inject(uid)); }
  std::string SetLogLevel(int level) { return Text(mDaemon.SetLogLevel(level)); }

  /// What was notified since the last Clear, as text: "Enabled", "alive", "token 04A1B2C3 ERfidUidNotInList",
  /// "learning 04A1B2C3", "listening" when the subscription to tokens is confirmed; "states ended with status
  /// 14" and "tokens ended" at the end of the streams. Alive messages are left out.
  std::vector<std::string> Notified() const;
  std::vector<std::string> Take();  ///< the same with alive messages, and clears
  void Clear() { Take(); }
  bool WaitFor(const std::string& notification, size_t count = 1,
               std::chrono::seconds limit = kLongestWait) const;

 private:
  static std::string Text(const Answer& answer);
  void Add(const std::string& what);

  DaemonClient mDaemon;
  mutable std::mutex mMutex;
  mutable std::condition_variable mArrived;
  std::vector<std::string> mNotified;
  Subscriber<ipc::GenericControl, ipc::MGenericControlNotification> mStates;  // last: these call Add
  Subscriber<ipc::Rfid, ipc::MRfidNotification> mTokens;
};
