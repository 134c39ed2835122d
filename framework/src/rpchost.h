#pragma once

#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/rpc.h"
#include "framework/rpcconfig.h"
#include "listensocket.h"
#include "notificationhub.h"
#include "services.h"

namespace grpc {
class Server;
}

class GrpcBackend::Impl {
 public:
  explicit Impl(const std::string& configPath);
  ~Impl();

  template <typename Interface>
  std::shared_ptr<IServer> Add(const std::string& name, const std::shared_ptr<Interface>& service) {
    CheckAddition(name, service != nullptr);
    mServices.push_back(MakeService(name, mHub, service));
    return std::make_shared<IServer>();
  }

  /// The peer's address. Throws Rpc::ConfigurationException when the file does not say.
  const std::string& PeerAddress(const std::string& name) const;

  void StartServices();
  void RunServer();
  void HandleClientNotifications() { mHub->Run(); }
  void Stop();

 private:
  void Listen();
  void CheckAddition(const std::string& name, bool hasService) const;

  const std::string mConfigPath;
  const RpcConfig mConfig;
  const std::shared_ptr<CNotificationHub> mHub = std::make_shared<CNotificationHub>();
  std::vector<ServiceEntry> mServices;
  std::unique_ptr<CListenSocket> mSocket;
  std::unique_ptr<grpc::Server> mServer;  // uses the services

  std::mutex mLifeMutex;  // StartServices and Stop, one at a time
  bool mStopRequested = false;
  std::mutex mStoppedMutex;
  std::condition_variable mStoppedWake;
  bool mStopped = false;
  std::future<void>
      mClosed;  // the server's closing, begun by Stop; waited for on destruction, so the last member
};
