#pragma once

#include <functional>
#include <string>

#include "ipc/common.pb.h"
#include "ipc/diagnostics.pb.h"
#include "ipc/feedback.pb.h"
#include "ipc/log_config.pb.h"
#include "ipc/rfid.pb.h"

/// The RPC interfaces of the station: a service implements them, a client calls them.
///
/// Threads: the RPC host calls a service's virtual operations on its request threads, several at a time; they
/// may block. An exception that leaves one is logged and answered with the RPC status INTERNAL. The host sets
/// the Send* members when the service is added; they never block.

/// A daemon as its supervisor sees it.
class IGenericControl {
 public:
  virtual ~IGenericControl() = default;
  virtual ipc::MResult Enable() = 0;
  virtual ipc::MResult Disable() = 0;

  std::function<void(ipc::MState)> SendState;  ///< a new subscriber gets the last state at once
  std::function<void()> SendAlive;
};

/// The RFID daemon's own service.
class IRfid {
 public:
  virtual ~IRfid() = default;
  virtual ipc::MResult EnableLearning(bool enable) = 0;
  virtual ipc::MResult InjectToken(const std::string& uid) = 0;

  std::function<void(ipc::MRfidToken)> SendRfidToken;
  std::function<void(const std::string&)> SendRfidLearningToken;
};

/// Log level of a running daemon.
class ILogConfig {
 public:
  virtual ~ILogConfig() = default;
  virtual ipc::MLogLevel GetLogLevel() = 0;
  virtual ipc::MResult SetLogLevel(const ipc::MLogLevel& level) = 0;
};

/// Light and sound for the driver, offered by the feedback daemon.
class IFeedback {
 public:
  virtual ~IFeedback() = default;
  /// Blocks until the service answers. Throws Rpc::CommunicationException when the call fails or times out.
  virtual ipc::MResult TriggerFeedbackEvent(const ipc::MFbEventType& event) = 0;
};

/// Log text of an authorisation state: the name in the enumeration, or "ERfidAuthState unknown".
const char* ERfidAuthStateToString(ipc::ERfidAuthState state);
