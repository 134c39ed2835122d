#include "tools/virtual-station/virtualstation.h"

#include <grpcpp/grpcpp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include "ipc/diagnostics.grpc.pb.h"
#include "ipc/feedback.grpc.pb.h"

namespace {

const std::string kUnixScheme = "unix:";

using SocketCall = int (*)(int, const sockaddr*, socklen_t);

/// Connects or binds a socket to the path and closes it again. Returns the error, or 0.
int TrySocket(SocketCall call, const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return ENAMETOOLONG;
  }
  path.copy(address.sun_path, path.size());
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool done =
      descriptor >= 0 && call(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  const int error = done ? 0 : errno;
  if (descriptor >= 0) {
    close(descriptor);
  }
  return error;
}

/// The RPC library replaces any socket at the path, even one in use, and does not say why it cannot listen.
/// So check the path first.
void PrepareUnixSocket(const std::string& path) {
  const auto folder = std::filesystem::path(path).parent_path();
  std::error_code error;
  if (!folder.empty() && (std::filesystem::create_directories(folder, error), error)) {
    throw std::runtime_error("cannot make the folder " + folder.string() + ": " + error.message());
  }
  const int answer = TrySocket(connect, path);
  if (answer == 0) {
    throw std::runtime_error(kUnixScheme + path + " is in use");
  }
  if (answer == ECONNREFUSED && std::filesystem::is_socket(path, error)) {  // its station is gone
    std::filesystem::remove(path, error);
  }
  if (const int reason = TrySocket(bind, path); reason != 0) {
    throw std::runtime_error("cannot listen on " + kUnixScheme + path + ": " +
                             std::generic_category().message(reason));
  }
  std::filesystem::remove(path, error);
}

grpc::ServerUnaryReactor* Finished(grpc::CallbackServerContext* context) {
  auto* const reactor = context->DefaultReactor();
  reactor->Finish(grpc::Status::OK);
  return reactor;
}

/// A call that is never answered.
class UnansweredCall : public grpc::ServerUnaryReactor {
 public:
  void OnCancel() override { Finish(grpc::Status::CANCELLED); }
  void OnDone() override { delete this; }
};

}  // namespace

class VirtualStation::Impl : ipc::Feedback::CallbackService, ipc::Diagnostics::CallbackService {
 public:
  Impl(const std::map<std::string, std::string>& peers, Observer observer, EAnswer feedbackAnswer)
      : mObserver(std::move(observer)), mFeedbackAnswer(feedbackAnswer) {
    std::map<std::string, std::vector<grpc::Service*>> servers;
    if (const auto peer = peers.find("Feedback"); peer != peers.end()) {
      servers[peer->second].push_back(static_cast<ipc::Feedback::CallbackService*>(this));
    }
    if (const auto peer = peers.find("Diagnostics"); peer != peers.end()) {
      servers[peer->second].push_back(static_cast<ipc::Diagnostics::CallbackService*>(this));
    }
    for (const auto& [address, services] : servers) {
      mServers.push_back(Serve(address, services));
    }
  }

  ~Impl() override {
    for (const auto& server : mServers) {
      server->Shutdown(std::chrono::system_clock::now());
    }
    mServers.clear();
  }

  void SetFeedbackAnswer(EAnswer answer) {
    const std::lock_guard lock(mMutex);
    mFeedbackAnswer = answer;
  }

  std::vector<Call> Calls() const {
    const std::lock_guard lock(mMutex);
    return mCalls;
  }

 private:
  grpc::ServerUnaryReactor* TriggerFeedbackEvent(grpc::CallbackServerContext* context,
                                                 const ipc::MFbEventType* event,
                                                 ipc::MResult* result) override {
    const EAnswer answer = Take(*event);
    result->set_result(answer == EAnswer::Illegal ? ipc::EResultIllegal : ipc::EResultOk);
    return answer == EAnswer::Hang ? new UnansweredCall : Finished(context);
  }

  grpc::ServerUnaryReactor* UpdateSignal(grpc::CallbackServerContext* context, const ipc::MSignal* signal,
                                         ipc::MResult* result) override {
    Take(*signal);
    result->set_result(ipc::EResultOk);
    return Finished(context);
  }

  grpc::ServerUnaryReactor* UpdateSignals(grpc::CallbackServerContext* context, const ipc::MSignals* signals,
                                          ipc::MResult* result) override {
    for (const ipc::MSignal& signal : signals->signals()) {
      Take(signal);
    }
    result->set_result(ipc::EResultOk);
    return Finished(context);
  }

  grpc::ServerUnaryReactor* List(grpc::CallbackServerContext* context, const ipc::MEmpty* /*request*/,
                                 ipc::MSignals* signals) override {
    const std::lock_guard lock(mMutex);
    for (const auto& [id, signal] : mSignals) {
      *signals->add_signals() = signal;
    }
    return Finished(context);
  }

  /// Returns how a feedback call is to be answered.
  EAnswer Take(Call call) {
    const std::lock_guard lock(mMutex);
    if (const auto* signal = std::get_if<ipc::MSignal>(&call)) {
      mSignals[signal->id()] = *signal;
    }
    if (mObserver) {
      mObserver(call);
    } else {
      mCalls.push_back(std::move(call));
    }
    return mFeedbackAnswer;
  }

  static std::unique_ptr<grpc::Server> Serve(const std::string& address,
                                             const std::vector<grpc::Service*>& services) {
    if (address.compare(0, kUnixScheme.size(), kUnixScheme) == 0) {
      PrepareUnixSocket(address.substr(kUnixScheme.size()));
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
      throw std::runtime_error("cannot listen on " + address + ", which may be in use");
    }
    return server;
  }

  const Observer mObserver;
  mutable std::mutex mMutex;  ///< guards the next three
  std::vector<Call> mCalls;
  std::map<int, ipc::MSignal> mSignals;  ///< the last of each
  EAnswer mFeedbackAnswer;
  std::vector<std::unique_ptr<grpc::Server>> mServers;
};

VirtualStation::VirtualStation(const std::map<std::string, std::string>& peers, Observer observer,
                               EAnswer feedbackAnswer)
    : mImpl(std::make_unique<Impl>(peers, std::move(observer), feedbackAnswer)) {}

VirtualStation::~VirtualStation() = default;

void VirtualStation::SetFeedbackAnswer(EAnswer answer) {
  mImpl->SetFeedbackAnswer(answer);
}

std::vector<ipc::EFbEventType> VirtualStation::FeedbackEvents() const {
  std::vector<ipc::EFbEventType> events;
  for (const Call& call : mImpl->Calls()) {
    if (const auto* event = std::get_if<ipc::MFbEventType>(&call)) {
      events.push_back(event->type());
    }
  }
  return events;
}

std::vector<std::string> VirtualStation::SignalValues(ipc::ESignalIdentifier id) const {
  std::vector<std::string> values;
  for (const Call& call : mImpl->Calls()) {
    if (const auto* signal = std::get_if<ipc::MSignal>(&call); signal != nullptr && signal->id() == id) {
      values.push_back(signal->value());
    }
  }
  return values;
}
