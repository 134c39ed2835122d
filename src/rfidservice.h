#pragma once

#include <functional>
#include <string>

#include "framework/interfaces.h"

/// The daemon's side of the RFID service.
class IRfidClient {
 public:
  virtual ~IRfidClient() = default;
  virtual void RfidToken(const ipc::MRfidToken& token) = 0;
  virtual void RfidLearningToken(const std::string& uid) = 0;

  std::function<ipc::MResult(bool)> IRfidEnableLearning;
  std::function<ipc::MResult(const std::string&)> IRfidInjectToken;
};

/// Connects the RPC service for other daemons with the daemon's side of it.
///
/// Threads: requests come on RPC threads and block until the machine has dispatched them. Notifications come
/// on the machine's thread. Calling an operation whose callable is empty throws std::bad_function_call.
class CRfidService : public IRfid, public IRfidClient {
 public:
  ipc::MResult EnableLearning(bool enable) override { return IRfidEnableLearning(enable); }
  ipc::MResult InjectToken(const std::string& uid) override { return IRfidInjectToken(uid); }
  void RfidToken(const ipc::MRfidToken& token) override { SendRfidToken(token); }
  void RfidLearningToken(const std::string& uid) override { SendRfidLearningToken(uid); }
};
