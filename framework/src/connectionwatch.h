#pragma once

#include <grpcpp/grpcpp.h>

#include <atomic>
#include <functional>
#include <thread>

/// Tells when a channel loses its connection, without looking at it from time to time.
///
/// A watch that has begun ends with the connection or with the channel. So the channel has to be gone before
/// the watch is destroyed, which waits for it: in a class that has both, the watch stands first.
class ConnectionWatch {
 public:
  /// `lost` is called on the watch's thread.
  explicit ConnectionWatch(std::function<void()> lost);
  ~ConnectionWatch();
  ConnectionWatch(const ConnectionWatch&) = delete;
  ConnectionWatch& operator=(const ConnectionWatch&) = delete;

  /// Reports once that this channel is not connected any more, at once if it already is not. Does nothing
  /// while it is watched. One channel only.
  void Begin(grpc::Channel& channel);

 private:
  void Run();

  const std::function<void()> mLost;
  std::atomic<bool> mWatching{false};
  grpc::CompletionQueue mQueue;
  std::thread mThread;
};
