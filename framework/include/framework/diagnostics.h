#pragma once

#include <functional>
#include <memory>
#include <string>

#include "framework/rpc.h"
#include "ipc/diagnostics.pb.h"

/// One entry of the catalogue of diagnostics signals.
template <typename T>
struct CSignalDefinition {
  ipc::ESignalIdentifier id;
  const char* name;
  T defaultValue;
  const char* unit;
};

/// The catalogue's entries that this daemon publishes.
namespace SignalCatalogue {
extern const CSignalDefinition<std::string> kRfidState;
extern const CSignalDefinition<std::string> kRfidLastUid;
extern const CSignalDefinition<std::string> kRfidLastTechnology;
extern const CSignalDefinition<std::string> kUserInteraction;
}  // namespace SignalCatalogue

/// Where published values go.
class IDiagnosticsTransport {
 public:
  virtual ~IDiagnosticsTransport() = default;

  /// Delivers values, in their order. Called on the publisher's thread, one call at a time. Returns false
  /// when the peer cannot be reached now, so that the values have to come again.
  virtual bool Deliver(const ipc::MSignals& signals) = 0;

  /// Called once, before the first Deliver. From then on the transport calls `lost`, on any thread, whenever
  /// it notices that the peer has gone after a delivery, so that everything has to come again. `lost` does
  /// not block.
  virtual void OnPeerLost(const std::function<void()>& /*lost*/) {}

  /// Makes a Deliver in progress, and any later one, return soon. From another thread.
  virtual void Cancel() {}
};

/// Sends the values of all signals to the diagnostics peer, from a thread of its own.
///
/// Values go out in the order in which they were sent. Those that are sent within a moment (20 ms) leave
/// together, after whatever they report on: a card costs one call, which does not compete with the card
/// itself. While the peer cannot be reached, values are coalesced to the latest of each signal, and the
/// latest of every signal is sent again when it comes back. While it is connected and nothing is sent,
/// nothing runs.
class CDiagnosticsCommClient {
 public:
  /// Begins to deliver through the host's "Diagnostics" peer; without such a peer in the configuration file
  /// values are kept and a line says so.
  static void Initialize(AppCommunicationHost<GrpcBackend>& host);
  static void Initialize(std::shared_ptr<IDiagnosticsTransport> transport);

  /// Stops delivering and joins the thread; values still waiting get one short chance. Signals may go on
  /// sending.
  static void Terminate();
};

/// A published value. Sending never blocks and never throws, from any thread, before Initialize and after
/// Terminate too.
template <typename T>
class CDiagnosticsSignal;

template <>
class CDiagnosticsSignal<std::string> {
 public:
  /// The definition is kept by address and must outlive the signal. The default is not sent by itself.
  explicit CDiagnosticsSignal(const CSignalDefinition<std::string>* definition);

  void Send() noexcept;  ///< sends the current value (the default at first) again
  void Send(const std::string& value) noexcept;

 private:
  class Impl;
  std::shared_ptr<Impl> mImpl;
};
