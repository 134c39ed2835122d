#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "framework/interfaces.h"

class CRpcQueue;

namespace Rpc {

/// Takes the RPC framework's own log output. Called from any thread.
class ILogger {
 public:
  virtual ~ILogger() = default;
  virtual void Critical(const std::string& message) = 0;
  virtual void Error(const std::string& message) = 0;
  virtual void Warning(const std::string& message) = 0;
  virtual void Info(const std::string& message) = 0;
  virtual void Debug(const std::string& message) = 0;
  virtual void Trace(const std::string& message) = 0;
};

/// A call to a peer failed: unreachable, timed out or refused. what() names the peer, the operation and the
/// reason.
class CommunicationException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The RPC configuration file cannot be used. what() names the file, the key and the reason.
class ConfigurationException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Rpc

/// Handle on a service added to the host. It may be dropped at once: the host keeps the service alive.
class IServer {
 public:
  virtual ~IServer() = default;
};

/// Handle on a client of a peer's service. The interface may outlive it.
template <typename Interface>
class IClient {
 public:
  virtual ~IClient() = default;
  /// How long a call waits for the connection, and how long for the answer. A call fails at once while the
  /// peer is known to be absent. After a call that timed out, each call gets 250 ms, connecting included,
  /// until the peer answers one.
  virtual void SetConnectTimeout(int seconds) = 0;
  virtual void SetCallTimeout(int seconds) = 0;
  virtual std::shared_ptr<Interface> GetInterface() = 0;
};

/// The RPC host on gRPC: serves this daemon's services on one address and connects to its peers.
///
/// Life: construct, AddService for every service, StartServices. Run RunServer and HandleClientNotifications
/// each on its own thread. Then Stop from any other thread, join the two, destroy. A client selects a service
/// by its registered name, which it sends as the authority (HTTP/2 ":authority"). So two services of one
/// interface may be offered under two names.
class GrpcBackend {
 public:
  /// Reads and validates the whole configuration file and sets the store of the configuration sections
  /// (HubConfig). Throws Rpc::ConfigurationException.
  explicit GrpcBackend(const std::string& configPath);
  virtual ~GrpcBackend();
  GrpcBackend(const GrpcBackend&) = delete;
  GrpcBackend& operator=(const GrpcBackend&) = delete;

  /// Where the framework's log output goes. The logger is kept for the life of the process.
  static void SetLogger(std::shared_ptr<Rpc::ILogger> logger);

  /// Where the peer with this name listens. Throws Rpc::ConfigurationException when the configuration file
  /// does not say.
  const std::string& PeerAddress(const std::string& name) const;

  /// Reports the ends of this host's gRPC operations. For the framework's own clients; destroy them before
  /// the host.
  const std::shared_ptr<CRpcQueue>& Queue() const;

  /// Listens and starts to accept requests. Throws Rpc::ConfigurationException when the address is in use by
  /// a running instance or the system refuses it.
  void StartServices();

  /// Takes requests from clients and the answers to this daemon's own calls, which wait until it runs. Blocks
  /// until Stop has ended everything. Does not need StartServices.
  void RunServer();

  /// Blocks until Stop. Notifications leave on the threads that send them.
  void HandleClientNotifications();

  /// Refuses new requests, answers waiting ones with UNAVAILABLE and ends the streams. Returns within a
  /// second, even when a request's handler never returns. Any thread; later calls do nothing.
  void Stop();

 protected:
  /// For IGenericControl, IRfid and ILogConfig.
  template <typename Interface>
  std::shared_ptr<IServer> Add(const std::string& name, std::shared_ptr<Interface> service);
  void Create(const std::string& name, std::shared_ptr<IClient<IFeedback>>& client);

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

/// The application's view of the RPC host.
template <typename Backend>
class AppCommunicationHost : public Backend {
 public:
  using Backend::Backend;

  /// Adds a service under a name and installs its Send* members. Before StartServices only.
  template <typename Interface>
  std::shared_ptr<IServer> AddService(const std::string& name, std::shared_ptr<Interface> service) {
    return this->Add(name, std::move(service));
  }

  /// A client of the peer with this name. The peer may come and go. Throws Rpc::ConfigurationException when
  /// the configuration file does not say where the peer listens.
  template <typename Interface>
  std::shared_ptr<IClient<Interface>> CreateClient(const std::string& name) {
    std::shared_ptr<IClient<Interface>> client;
    this->Create(name, client);
    return client;
  }
};
