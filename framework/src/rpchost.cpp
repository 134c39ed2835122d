#include <grpcpp/grpcpp.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "framework/hubconfig.h"
#include "framework/rpc.h"
#include "framework/rpcconfig.h"
#include "framework/thread.h"
#include "listensocket.h"
#include "notificationhub.h"
#include "rpcclients.h"
#include "rpclogging.h"
#include "rpcqueue.h"
#include "servercall.h"
#include "services.h"

namespace {

constexpr int kMaxRequestSize = 64 * 1024;
// The client holds back further calls. One client must not fill the queue of a service (64), so that there is
// room for the supervisor's request. The limit also bounds the memory of a flood: from its arrival on, every
// request takes some 60 KiB, even if it is refused.
constexpr int kMaxStreamsPerConnection = 48;
// These keep Stop within its second. All count from its start: how long streams may take to send their last
// messages, how long a request's handler may take to return, and how long connections may take to close.
constexpr std::chrono::milliseconds kShutdownGrace{300};
constexpr std::chrono::milliseconds kHandlerGrace{500};
constexpr std::chrono::milliseconds kCloseGrace{800};

const std::string kUnixScheme = "unix:";

}  // namespace

struct GrpcBackend::Impl {
  void Listen();
  void CheckAddition(const std::string& name, bool hasService) const;
  void Dispatch(const std::shared_ptr<CServerCall>& call) const;

  const std::string configPath;
  const RpcConfig config;
  const std::shared_ptr<CNotificationHub> hub = std::make_shared<CNotificationHub>();
  std::vector<ServiceEntry> services{};
  std::unique_ptr<grpc::ServerBuilder> builder = std::make_unique<grpc::ServerBuilder>();  // until it is used
  grpc::AsyncGenericService calls{};
  std::unique_ptr<CListenSocket> socket{};
  grpc::ServerCompletionQueue* serverQueue = nullptr;  // `queue` wraps it
  const std::shared_ptr<CRpcQueue> queue = MakeQueue();
  std::unique_ptr<grpc::Server> server{};

  std::mutex lifeMutex{};  // StartServices and Stop, one at a time
  bool stopRequested = false;
  std::promise<void> stopped{};
  const std::shared_future<void> isStopped = stopped.get_future();
  std::future<void> closed{};  // closes the server, started by Stop; last member, so it ends first

 private:
  std::shared_ptr<CRpcQueue> MakeQueue() {
    auto made = builder->AddCompletionQueue();
    serverQueue = made.get();
    return std::make_shared<CRpcQueue>(std::move(made));
  }
};

/// Starts the method that the client asks for. If there is none, the error lists the registered names.
void GrpcBackend::Impl::Dispatch(const std::shared_ptr<CServerCall>& call) const {
  std::string names;
  for (const ServiceEntry& entry : services) {
    names += (names.empty() ? "" : ", ") + entry.runtime->name;
    const auto method = entry.methods.find(call->Method());
    if (entry.runtime->name == call->Service() && method != entry.methods.end()) {
      return method->second(call);
    }
  }
  call->Finish({grpc::StatusCode::UNIMPLEMENTED,
                "no service '" + call->Service() + "' with a method " + call->Method() +
                    "; set the authority to the service's name, one of: " + names});
}

void GrpcBackend::Impl::CheckAddition(const std::string& name, bool hasService) const {
  const auto hasName = [&](const ServiceEntry& entry) { return entry.runtime->name == name; };
  if (!hasService || name.empty()) {
    throw std::invalid_argument("RPC service '" + name + "': a service needs a name and an object");
  }
  if (std::any_of(services.begin(), services.end(), hasName)) {
    throw std::invalid_argument("RPC service '" + name + "': the name is taken");
  }
  if (!builder) {
    throw std::logic_error("RPC service '" + name + "': added after StartServices");
  }
}

void GrpcBackend::Impl::Listen() {
  std::unique_ptr<CListenSocket> newSocket;
  std::string address = config.listen;
  if (address.starts_with(kUnixScheme)) {
    newSocket = std::make_unique<CListenSocket>(address.substr(kUnixScheme.size()));
    address = kUnixScheme + newSocket->TemporaryPath();
  }
  const auto building = std::move(builder);
  building->SetMaxReceiveMessageSize(kMaxRequestSize);
  building->AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, kMaxStreamsPerConnection);
  // Without this a second instance would share the port instead of being refused.
  building->AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  building->AddListeningPort(address, grpc::InsecureServerCredentials());
  building->RegisterAsyncGenericService(&calls);
  const RpcLogging::CErrorCapture errors;
  std::unique_ptr<grpc::Server> newServer = building->BuildAndStart();
  if (!newServer) {
    throw Rpc::ConfigurationException("Cannot listen on " + config.listen + ": " + errors.Reason());
  }
  if (newSocket) {
    newSocket->Publish();
  }
  socket = std::move(newSocket);
  server = std::move(newServer);
  // Not before: the operation under way uses the server until the queue reports its end.
  CServerCall::Accept(*queue, serverQueue, calls, [this](const auto& call) { Dispatch(call); });
  RpcLogging::Info("Serving on " + config.listen);
}

GrpcBackend::GrpcBackend(const std::string& configPath)
    : mImpl(new Impl{configPath, RpcConfig::Load(configPath)}) {
  RpcLogging::CaptureLibraries();
  HubConfig::SetStore(mImpl->config.configuration);
}

GrpcBackend::~GrpcBackend() {
  Stop();
  mImpl->closed.wait();
  mImpl->queue->Run();  // ends the operations that are left if RunServer did not run
}

void GrpcBackend::SetLogger(std::shared_ptr<Rpc::ILogger> logger) {
  RpcLogging::SetLogger(std::move(logger));
}

const std::string& GrpcBackend::PeerAddress(const std::string& name) const {
  const auto found = mImpl->config.peers.find(name);
  if (found == mImpl->config.peers.end()) {
    throw Rpc::ConfigurationException(mImpl->configPath + ": peers." + name + ": missing");
  }
  return found->second;
}

void GrpcBackend::StartServices() {
  const std::lock_guard<std::mutex> life(mImpl->lifeMutex);
  if (mImpl->stopRequested || !mImpl->builder) {
    throw std::logic_error("StartServices: called twice or after Stop");
  }
  if (mImpl->services.empty()) {
    throw std::logic_error("StartServices: no service was added");
  }
  try {
    mImpl->Listen();
  } catch (const Rpc::ConfigurationException& e) {
    throw Rpc::ConfigurationException(mImpl->configPath + ": listen: " + e.what());
  }
}

const std::shared_ptr<CRpcQueue>& GrpcBackend::Queue() const {
  return mImpl->queue;
}

void GrpcBackend::RunServer() {
  mImpl->queue->Run();
  mImpl->isStopped.wait();
}

void GrpcBackend::HandleClientNotifications() {
  mImpl->isStopped.wait();  // the thread that sends a notification also writes it
}

void GrpcBackend::Stop() {
  Impl& me = *mImpl;
  const std::lock_guard<std::mutex> life(me.lifeMutex);
  if (me.stopRequested) {
    return;
  }
  me.stopRequested = true;
  const auto start = std::chrono::steady_clock::now();
  // Every client gets its status before the server shuts down: waiting requests now, late ones on arrival.
  me.hub->Stop();
  for (const ServiceEntry& entry : me.services) {
    entry.runtime->pool.Abandon();
  }
  // gRPC's shutdown has a grace period but no time limit. Stop does not wait for it; RunServer and the
  // destructor do.
  auto closed = std::async(std::launch::async, [&me] {
    SetThreadName("rpc-close");
    if (me.server) {
      me.server->Shutdown(std::chrono::system_clock::now() + kShutdownGrace);
    }
    me.queue->Close();
  });
  for (const ServiceEntry& entry : me.services) {
    if (!entry.runtime->pool.Join(start + kHandlerGrace)) {
      RpcLogging::Error("A request to " + entry.runtime->name + " does not return; it is left behind");
    }
  }
  if (closed.wait_until(start + kCloseGrace) != std::future_status::ready) {
    RpcLogging::Warning("The server's connections take long to close");
  }
  me.closed = std::move(closed);
  me.socket.reset();
  me.stopped.set_value();
}

template <typename Interface>
std::shared_ptr<IServer> GrpcBackend::Add(const std::string& name, std::shared_ptr<Interface> service) {
  mImpl->CheckAddition(name, service != nullptr);
  mImpl->services.push_back(MakeService(name, mImpl->hub, service));
  return std::make_shared<IServer>();
}

template std::shared_ptr<IServer> GrpcBackend::Add(const std::string&, std::shared_ptr<IGenericControl>);
template std::shared_ptr<IServer> GrpcBackend::Add(const std::string&, std::shared_ptr<IRfid>);
template std::shared_ptr<IServer> GrpcBackend::Add(const std::string&, std::shared_ptr<ILogConfig>);

void GrpcBackend::Create(const std::string& name, std::shared_ptr<IClient<IFeedback>>& client) {
  client = CreateFeedbackClient(mImpl->queue, name, PeerAddress(name));
}
