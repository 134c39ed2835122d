#include "virtual-station/virtualstation.h"

#include <grpcpp/grpcpp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <stdexcept>

#include "ipc/diagnostics.grpc.pb.h"
#include "ipc/feedback.grpc.pb.h"

namespace {

const std::string cUnixScheme = "unix:";

bool IsAnswering(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return false;  // the RPC library will say so
  }
  path.copy(address.sun_path, path.size());
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool connected = descriptor >= 0 && connect(descriptor, reinterpret_cast<const sockaddr*>(&address),
                                                    sizeof address) == 0;
  if (descriptor >= 0) {
    close(descriptor);
  }
  return connected;
}

/// The RPC library replaces any socket that stands at the path, also one that is in use.
void PrepareUnixSocket(const std::string& path) {
  const auto folder = std::filesystem::path(path).parent_path();
  if (!folder.empty()) {
    std::filesystem::create_directories(folder);
  }
  if (IsAnswering(path)) {
    throw std::runtime_error(cUnixScheme + path + " is in use");
  }
}

/// A call that is never answered.
class UnansweredCall : public grpc::ServerUnaryReactor {
 public:
  void OnCancel() override { Finish(grpc::Status::CANCELLED); }
  void OnDone() override { delete this; }
};

}  // namespace

class VirtualStation::Impl {
 public:
  Impl(const std::map<std::string, std::string>& peers, Observer observer, EAnswer feedbackAnswer)
      : mObserver(std::move(observer)),
        mFeedbackAnswer(feedbackAnswer),
        mFeedback(*this),
        mDiagnostics(*this) {
    std::map<std::string, std::vector<grpc::Service*>> servers;
    if (const auto peer = peers.find("Feedback"); peer != peers.end()) {
      servers[peer->second].push_back(&mFeedback);
    }
    if (const auto peer = peers.find("Diagnostics"); peer != peers.end()) {
      servers[peer->second].push_back(&mDiagnostics);
    }
    for (const auto& [address, services] : servers) {
      mServers.push_back(Serve(address, services));
    }
  }

  ~Impl() {
    for (const auto& server : mServers) {
      server->Shutdown(std::chrono::system_clock::now());
    }
  }

  ipc::EResult Take(Call call) {
    const std::lock_guard lock(mMutex);
    if (mObserver) {
      mObserver(call);
    }
    mCalls.push_back(std::move(call));
    mArrived.notify_all();
    return mFeedbackAnswer == EAnswer::Illegal ? ipc::EResultIllegal : ipc::EResultOk;
  }

  bool IsHanging() const {
    const std::lock_guard lock(mMutex);
    return mFeedbackAnswer == EAnswer::Hang;
  }

  void SetFeedbackAnswer(EAnswer answer) {
    const std::lock_guard lock(mMutex);
    mFeedbackAnswer = answer;
  }

  std::vector<Call> Calls() const {
    const std::lock_guard lock(mMutex);
    return mCalls;
  }

  bool WaitFor(const std::function<bool(const std::vector<Call>&)>& predicate,
               std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mMutex);
    return mArrived.wait_for(lock, timeout, [&] { return predicate(mCalls); });
  }

 private:
  class FeedbackService : public ipc::Feedback::CallbackService {
   public:
    explicit FeedbackService(Impl& station) : mStation(station) {}

    grpc::ServerUnaryReactor* TriggerFeedbackEvent(grpc::CallbackServerContext* context,
                                                   const ipc::MFbEventType* event,
                                                   ipc::MResult* result) override {
      result->set_result(mStation.Take(*event));
      if (mStation.IsHanging()) {
        return new UnansweredCall;
      }
      auto* const reactor = context->DefaultReactor();
      reactor->Finish(grpc::Status::OK);
      return reactor;
    }

   private:
    Impl& mStation;
  };

  class DiagnosticsService : public ipc::Diagnostics::CallbackService {
   public:
    explicit DiagnosticsService(Impl& station) : mStation(station) {}

    grpc::ServerUnaryReactor* UpdateSignal(grpc::CallbackServerContext* context, const ipc::MSignal* signal,
                                           ipc::MResult* result) override {
      mStation.Take(*signal);
      result->set_result(ipc::EResultOk);
      auto* const reactor = context->DefaultReactor();
      reactor->Finish(grpc::Status::OK);
      return reactor;
    }

   private:
    Impl& mStation;
  };

  static std::unique_ptr<grpc::Server> Serve(const std::string& address,
                                             const std::vector<grpc::Service*>& services) {
    if (address.compare(0, cUnixScheme.size(), cUnixScheme) == 0) {
      PrepareUnixSocket(address.substr(cUnixScheme.size()));
    }
    grpc::ServerBuilder builder;
    builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
    int port = 0;
    builder.AddListeningPort(address, grpc::InsecureServerCredentials(), &port);
    for (grpc::Service* service : services) {
      builder.RegisterService(service);
    }
    auto server = builder.BuildAndStart();
    if (!server || port == 0) {
      throw std::runtime_error("cannot listen on " + address);
    }
    return server;
  }

  const Observer mObserver;
  mutable std::mutex mMutex;  ///< of the following
  mutable std::condition_variable mArrived;
  std::vector<Call> mCalls;
  EAnswer mFeedbackAnswer;

  FeedbackService mFeedback;
  DiagnosticsService mDiagnostics;
  std::vector<std::unique_ptr<grpc::Server>> mServers;
};

VirtualStation::VirtualStation(const std::map<std::string, std::string>& peers, Observer observer,
                               EAnswer feedbackAnswer)
    : mImpl(std::make_unique<Impl>(peers, std::move(observer), feedbackAnswer)) {}

VirtualStation::~VirtualStation() = default;

void VirtualStation::SetFeedbackAnswer(EAnswer answer) {
  mImpl->SetFeedbackAnswer(answer);
}

std::vector<VirtualStation::Call> VirtualStation::Calls() const {
  return mImpl->Calls();
}

std::vector<ipc::EFbEventType> VirtualStation::FeedbackEvents() const {
  std::vector<ipc::EFbEventType> events;
  for (const Call& call : Calls()) {
    if (const auto* event = std::get_if<ipc::MFbEventType>(&call)) {
      events.push_back(event->type());
    }
  }
  return events;
}

std::vector<std::string> VirtualStation::SignalValues(ipc::ESignalIdentifier id) const {
  std::vector<std::string> values;
  for (const Call& call : Calls()) {
    if (const auto* signal = std::get_if<ipc::MSignal>(&call); signal != nullptr && signal->id() == id) {
      values.push_back(signal->value());
    }
  }
  return values;
}

bool VirtualStation::WaitFor(const std::function<bool(const std::vector<Call>&)>& predicate,
                             std::chrono::milliseconds timeout) const {
  return mImpl->WaitFor(predicate, timeout);
}
