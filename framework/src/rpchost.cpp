#include "rpchost.h"

#include <grpcpp/grpcpp.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <stdexcept>
#include <utility>

#include "framework/hubconfig.h"
#include "framework/thread.h"
#include "rpcclients.h"
#include "rpclogging.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMaxRequestSize = 64 * 1024;
// What exceeds this waits at the client. A request takes memory from its arrival on (some 60 KiB), also one
// that is refused, so the pools' bounds alone would not bound what a flood costs.
constexpr int kMaxStreamsPerConnection = 128;
// These keep Stop within its second. All are counted from its beginning: how long streams may take to send
// their last messages, how long a request's handler may take to come back, and how long connections may take
// to close.
constexpr std::chrono::milliseconds kShutdownGrace{300};
constexpr std::chrono::milliseconds kHandlerGrace{500};
constexpr std::chrono::milliseconds kCloseGrace{800};

const std::string kUnixScheme = "unix:";

}  // namespace

GrpcBackend::Impl::Impl(const std::string& configPath)
    : mConfigPath(configPath), mConfig(RpcConfig::Load(configPath)) {
  RpcLogging::CaptureLibraries();
  HubConfig::SetStore(mConfig.configuration);
}

GrpcBackend::Impl::~Impl() {
  Stop();
}

void GrpcBackend::Impl::CheckAddition(const std::string& name, bool hasService) const {
  const auto sameName = [&](const ServiceEntry& entry) { return entry.runtime->name == name; };
  if (!hasService || name.empty()) {
    throw std::invalid_argument("RPC service '" + name + "': a service needs a name and an object");
  }
  if (std::any_of(mServices.begin(), mServices.end(), sameName)) {
    throw std::invalid_argument("RPC service '" + name + "': the name is taken");
  }
  if (mServer) {
    throw std::logic_error("RPC service '" + name + "': added after StartServices");
  }
}

const std::string& GrpcBackend::Impl::PeerAddress(const std::string& name) const {
  const auto found = mConfig.peers.find(name);
  if (found == mConfig.peers.end()) {
    throw Rpc::ConfigurationException(mConfigPath + ": peers." + name + ": missing");
  }
  return found->second;
}

void GrpcBackend::Impl::StartServices() {
  try {
    Listen();
  } catch (const Rpc::ConfigurationException& e) {
    throw Rpc::ConfigurationException(mConfigPath + ": listen: " + e.what());
  }
}

void GrpcBackend::Impl::Listen() {
  const std::lock_guard<std::mutex> life(mLifeMutex);
  if (mStopRequested || mServer) {
    throw std::logic_error("StartServices: called twice or after Stop");
  }
  if (mServices.empty()) {
    throw std::logic_error("StartServices: no service was added");
  }
  const bool isUnix = mConfig.listen.compare(0, kUnixScheme.size(), kUnixScheme) == 0;
  std::unique_ptr<CListenSocket> socket;
  std::string address = mConfig.listen;
  if (isUnix) {
    socket = std::make_unique<CListenSocket>(mConfig.listen.substr(kUnixScheme.size()));
    address = kUnixScheme + socket->TemporaryPath();
  }
  for (const ServiceEntry& entry : mServices) {
    entry.runtime->pool.Start();
  }
  grpc::ServerBuilder builder;
  builder.SetMaxReceiveMessageSize(kMaxRequestSize);
  builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, kMaxStreamsPerConnection);
  // Without this a second instance would share the port instead of being refused.
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  builder.AddListeningPort(address, grpc::InsecureServerCredentials());
  for (const ServiceEntry& entry : mServices) {
    builder.RegisterService(entry.runtime->name, entry.service.get());
  }
  const RpcLogging::CErrorCapture errors;
  std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  if (!server) {
    throw Rpc::ConfigurationException("Cannot listen on " + mConfig.listen + ": " + errors.Reason());
  }
  if (socket) {
    socket->Publish();
  }
  mSocket = std::move(socket);
  mServer = std::move(server);
  RpcLogging::Info("Serving on " + mConfig.listen);
}

void GrpcBackend::Impl::RunServer() {
  std::unique_lock<std::mutex> lock(mStoppedMutex);
  mStoppedWake.wait(lock, [this] { return mStopped; });
}

void GrpcBackend::Impl::Stop() {
  const std::lock_guard<std::mutex> life(mLifeMutex);
  if (mStopRequested) {
    return;
  }
  mStopRequested = true;
  const auto start = Clock::now();
  // Every client gets its status before the server is told to go: what is waiting now, and what still
  // arrives.
  mHub->Stop();
  for (const ServiceEntry& entry : mServices) {
    entry.runtime->pool.Abandon();
  }
  // gRPC's own closing has a grace but no bound: on a busy machine its pollers may sleep up to a second. Stop
  // does not wait for that; the destructor does.
  auto closed = std::async(std::launch::async, [this] {
    SetThreadName("rpc-close");
    if (mServer) {
      mServer->Shutdown(std::chrono::system_clock::now() + kShutdownGrace);
    }
  });
  for (const ServiceEntry& entry : mServices) {
    if (!entry.runtime->pool.Join(start + kHandlerGrace)) {
      RpcLogging::Error("A request to " + entry.runtime->name + " does not return; it is left behind");
    }
  }
  if (closed.wait_until(start + kCloseGrace) != std::future_status::ready) {
    RpcLogging::Warning("The server's connections take long to close");
  }
  mClosed = std::move(closed);
  mSocket.reset();
  {
    const std::lock_guard<std::mutex> lock(mStoppedMutex);
    mStopped = true;
  }
  mStoppedWake.notify_all();
}

GrpcBackend::GrpcBackend(const std::string& configPath) : mImpl(std::make_unique<Impl>(configPath)) {}

GrpcBackend::~GrpcBackend() = default;

void GrpcBackend::SetLogger(std::shared_ptr<Rpc::ILogger> logger) {
  RpcLogging::SetLogger(std::move(logger));
}

void GrpcBackend::StartServices() {
  mImpl->StartServices();
}

void GrpcBackend::RunServer() {
  mImpl->RunServer();
}

void GrpcBackend::HandleClientNotifications() {
  mImpl->HandleClientNotifications();
}

void GrpcBackend::Stop() {
  mImpl->Stop();
}

std::shared_ptr<IServer> GrpcBackend::Add(const std::string& name, std::shared_ptr<IGenericControl> service) {
  return mImpl->Add(name, std::move(service));
}

std::shared_ptr<IServer> GrpcBackend::Add(const std::string& name, std::shared_ptr<IRfid> service) {
  return mImpl->Add(name, std::move(service));
}

std::shared_ptr<IServer> GrpcBackend::Add(const std::string& name, std::shared_ptr<ILogConfig> service) {
  return mImpl->Add(name, std::move(service));
}

void GrpcBackend::Create(const std::string& name, std::shared_ptr<IClient<IFeedback>>& client) {
  client = CreateFeedbackClient(name, mImpl->PeerAddress(name));
}
