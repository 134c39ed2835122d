#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "ipc/diagnostics.pb.h"
#include "ipc/feedback.pb.h"

/// The services of other daemons that the RFID daemon calls, Feedback and Diagnostics: takes every call, and
/// hands it to an observer or keeps it; one that brings several signals counts as a call for each. Whoever
/// asks Diagnostics for the signals gets their last values.
///
/// Threads: every function may be called from any thread; calls arrive on the RPC library's threads.
class VirtualStation {
 public:
  enum class EAnswer {
    Ok,
    Illegal,
    Hang,  ///< the answer never comes; the call ends with the caller's patience or with the station
  };
  using Call = std::variant<ipc::MFbEventType, ipc::MSignal>;
  using Observer = std::function<void(const Call&)>;

  /// Serves "Feedback" and "Diagnostics" at the addresses that `peers` (name to address, as in RpcConfig)
  /// gives for them; a service that it does not name is not served. A unix socket's folder is made where it
  /// is missing, the socket of a station that is gone is replaced. Throws std::runtime_error when an address
  /// cannot be had. `observer` is called for every call, one at a time, before it is answered; it must not
  /// call the station. Without one, calls are kept for as long as the station lives.
  explicit VirtualStation(const std::map<std::string, std::string>& peers, Observer observer = {},
                          EAnswer feedbackAnswer = EAnswer::Ok);
  ~VirtualStation();  ///< ends calls that are still waiting
  VirtualStation(const VirtualStation&) = delete;
  VirtualStation& operator=(const VirtualStation&) = delete;

  /// How feedback calls are answered from now on.
  void SetFeedbackAnswer(EAnswer answer);

  /// The feedback events, and the values of one signal, among the calls that are kept, in the order of
  /// arrival.
  std::vector<ipc::EFbEventType> FeedbackEvents() const;
  std::vector<std::string> SignalValues(ipc::ESignalIdentifier id) const;

 private:
  class Impl;
  std::unique_ptr<Impl> mImpl;
};
