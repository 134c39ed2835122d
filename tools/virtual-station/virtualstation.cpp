#include "tools/virtual-station/virtualstation.h"

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tools/virtual-nfc/server/unixsocket.h"

namespace {

constexpr std::string_view kUnixScheme = "unix:";

/// The RPC library replaces any socket at the path, even one in use, and does not say why it cannot listen.
/// So try it first.
void PrepareUnixSocket(const std::string& path) {
  const auto folder = std::filesystem::path(path).parent_path();
  std::error_code error;
  if (!folder.empty() && (std::filesystem::create_directories(folder, error), error)) {
    throw std::runtime_error("cannot make the folder " + folder.string() + ": " + error.message());
  }
  const virtualnfc::UnixListener attempt(path, SOCK_STREAM);
}

std::unique_ptr<grpc::Server> Serve(const std::string& address, const std::vector<grpc::Service*>& services) {
  if (address.starts_with(kUnixScheme)) {
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

VirtualStation::VirtualStation(const std::map<std::string, std::string>& peers, Observer observer,
                               EAnswer feedbackAnswer)
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

VirtualStation::~VirtualStation() {
  for (const auto& server : mServers) {
    server->Shutdown(std::chrono::system_clock::now());
  }
  mServers.clear();
}

void VirtualStation::SetFeedbackAnswer(EAnswer answer) {
  const std::lock_guard lock(mMutex);
  mFeedbackAnswer = answer;
}

grpc::ServerUnaryReactor* VirtualStation::TriggerFeedbackEvent(grpc::CallbackServerContext* context,
                                                               const ipc::MFbEventType* event,
                                                               ipc::MResult* result) {
  const EAnswer answer = Take(*event);
  result->set_result(answer == EAnswer::Illegal ? ipc::EResultIllegal : ipc::EResultOk);
  return answer == EAnswer::Hang ? new UnansweredCall : Finished(context);
}

grpc::ServerUnaryReactor* VirtualStation::UpdateSignal(grpc::CallbackServerContext* context,
                                                       const ipc::MSignal* signal, ipc::MResult* result) {
  Take(*signal);
  result->set_result(ipc::EResultOk);
  return Finished(context);
}

grpc::ServerUnaryReactor* VirtualStation::UpdateSignals(grpc::CallbackServerContext* context,
                                                        const ipc::MSignals* signals, ipc::MResult* result) {
  for (const ipc::MSignal& signal : signals->signals()) {
    Take(signal);
  }
  result->set_result(ipc::EResultOk);
  return Finished(context);
}

grpc::ServerUnaryReactor* VirtualStation::List(grpc::CallbackServerContext* context,
                                               const ipc::MEmpty* /*request*/, ipc::MSignals* signals) {
  const std::lock_guard lock(mMutex);
  for (const auto& [id, signal] : mSignals) {
    *signals->add_signals() = signal;
  }
  return Finished(context);
}

VirtualStation::EAnswer VirtualStation::Take(Call call) {
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

std::vector<ipc::EFbEventType> VirtualStation::FeedbackEvents() const {
  const std::lock_guard lock(mMutex);
  std::vector<ipc::EFbEventType> events;
  for (const Call& call : mCalls) {
    if (const auto* event = std::get_if<ipc::MFbEventType>(&call)) {
      events.push_back(event->type());
    }
  }
  return events;
}

std::vector<std::string> VirtualStation::SignalValues(ipc::ESignalIdentifier id) const {
  const std::lock_guard lock(mMutex);
  std::vector<std::string> values;
  for (const Call& call : mCalls) {
    if (const auto* signal = std::get_if<ipc::MSignal>(&call); signal != nullptr && signal->id() == id) {
      values.push_back(signal->value());
    }
  }
  return values;
}
