#pragma once

#include <functional>

#include "ipc/diagnostics.pb.h"

/// Where published values go.
class IDiagnosticsTransport {
 public:
  virtual ~IDiagnosticsTransport() = default;

  /// Delivers values, in their order. Called on the publisher's thread, one call at a time. Returns false
  /// when the peer cannot be reached now and the values have to be sent again.
  virtual bool Deliver(const ipc::MSignals& signals) = 0;

  /// Called once, before the first Deliver. From then on the transport calls `lost`, on any thread, when the
  /// peer goes away after a delivery: all values must then be sent again. `lost` does not block.
  virtual void OnPeerLost(const std::function<void()>& /*lost*/) {}

  /// Makes a Deliver in progress, and any later one, return soon. From another thread.
  virtual void Cancel() {}
};
