#pragma once

#include <functional>
#include <memory>
#include <string>

class CRpcQueue;

/// Reports that a peer's server has gone, without polling.
///
/// The watch has its own connection and sends nothing on it. When the server ends, so does the connection,
/// and gRPC reports that.
class CConnectionWatch {
 public:
  /// `isConnected` says whether the peer's main connection is up. `lost` is called when that connection may
  /// have been lost. Both run on the queue's thread and must not block.
  CConnectionWatch(std::shared_ptr<CRpcQueue> queue, const std::string& address,
                   std::function<bool()> isConnected, std::function<void()> lost);
  ~CConnectionWatch();  ///< waits for a call in progress
  CConnectionWatch(const CConnectionWatch&) = delete;
  CConnectionWatch& operator=(const CConnectionWatch&) = delete;

  /// Watches the peer until `lost` has been called. Does nothing while the peer is already watched.
  void Begin();

 private:
  struct State;
  const std::shared_ptr<State> mState;
};
