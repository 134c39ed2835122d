#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "framework/rpc.h"
#include "ipc/diagnostics.pb.h"

class IDiagnosticsTransport;

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

/// Sends the values of all signals to the diagnostics peer, from its own thread ("diagnostics").
///
/// Values leave in the order of the Send calls. Those sent within 20 ms of the first leave together: a card
/// costs one call, which goes out after the card was handled. While the peer is unreachable only the latest
/// value of each signal is kept; when the peer is back, the latest of every signal is sent again.
class CDiagnosticsCommClient {
 public:
  /// Starts to deliver to the host's "Diagnostics" peer. Call Terminate before the host's Stop. If the
  /// configuration file has no such peer, values are only kept, and a warning says so.
  static void Initialize(AppCommunicationHost<GrpcBackend>& host);
  static void Initialize(std::shared_ptr<IDiagnosticsTransport> transport);

  /// Stops delivering and joins the thread; queued values get 300 ms to leave. Signals may go on sending.
  static void Terminate();
};

/// A published value. Sending never blocks and never throws, from any thread, also before Initialize and
/// after Terminate.
template <typename T>
class CDiagnosticsSignal;

template <>
class CDiagnosticsSignal<std::string> {
 public:
  /// The definition is kept by address and must outlive the signal. The default value is only sent by Send.
  explicit CDiagnosticsSignal(const CSignalDefinition<std::string>* definition);

  void Send() noexcept;  ///< sends the current value (the default at first) again
  void Send(const std::string& value) noexcept;

 private:
  void SendNoThrow(const std::string* value) noexcept;

  const CSignalDefinition<std::string>* const mDefinition;
  std::mutex mMutex;
  std::string mValue;  ///< guarded by mMutex
};
