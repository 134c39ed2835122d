#pragma once

#include <grpcpp/grpcpp.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

#include "ipc/diagnostics.grpc.pb.h"
#include "ipc/feedback.grpc.pb.h"

/// The two services that the RFID daemon calls, Feedback and Diagnostics. Hands every call to an observer or
/// keeps it; a call with several signals counts as one for each. Diagnostics lists the last values of the
/// signals.
///
/// Threads: any. Calls arrive on the RPC library's threads.
class VirtualStation : ipc::Feedback::CallbackService, ipc::Diagnostics::CallbackService {
 public:
  enum class EAnswer {
    Ok,
    Illegal,
    Hang,  ///< never answer; the call ends with its deadline or with the station
  };
  using Call = std::variant<ipc::MFbEventType, ipc::MSignal>;
  using Observer = std::function<void(const Call&)>;

  /// Serves "Feedback" and "Diagnostics" at their addresses in `peers` (name to address, as in RpcConfig); a
  /// service without an address is not served. Creates the folder of a unix socket if necessary and replaces
  /// the socket that an ended station left. Throws std::runtime_error if it cannot listen. `observer` is
  /// called for every call before it is answered, one at a time; it must not call the station. Without an
  /// observer the calls are kept for as long as the station lives.
  explicit VirtualStation(const std::map<std::string, std::string>& peers, Observer observer = {},
                          EAnswer feedbackAnswer = EAnswer::Ok);
  ~VirtualStation() override;  ///< ends the calls that still wait
  VirtualStation(const VirtualStation&) = delete;
  VirtualStation& operator=(const VirtualStation&) = delete;

  /// How feedback calls are answered from now on.
  void SetFeedbackAnswer(EAnswer answer);

  /// The feedback events, or the values of one signal, in the order of the calls. For a station without
  /// observer.
  std::vector<ipc::EFbEventType> FeedbackEvents() const;
  std::vector<std::string> SignalValues(ipc::ESignalIdentifier id) const;

 private:
  grpc::ServerUnaryReactor* TriggerFeedbackEvent(grpc::CallbackServerContext* context,
                                                 const ipc::MFbEventType* event,
                                                 ipc::MResult* result) override;
  grpc::ServerUnaryReactor* UpdateSignal(grpc::CallbackServerContext* context, const ipc::MSignal* signal,
                                         ipc::MResult* result) override;
  grpc::ServerUnaryReactor* UpdateSignals(grpc::CallbackServerContext* context, const ipc::MSignals* signals,
                                          ipc::MResult* result) override;
  grpc::ServerUnaryReactor* List(grpc::CallbackServerContext* context, const ipc::MEmpty* request,
                                 ipc::MSignals* signals) override;
  /// Returns how a feedback call is to be answered.
  EAnswer Take(Call call);

  const Observer mObserver;
  mutable std::mutex mMutex;  ///< guards the next three
  std::vector<Call> mCalls;
  std::map<int, ipc::MSignal> mSignals;  ///< the last of each
  EAnswer mFeedbackAnswer;
  std::vector<std::unique_ptr<grpc::Server>> mServers;
};
