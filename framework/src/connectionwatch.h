#pragma once

#include <grpc/grpc.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

/// Reports that a peer's server has gone, without polling.
///
/// The watch has its own connection and sends nothing on it. When the server ends, so does the connection,
/// and gRPC reports that on one of its own threads. Do not wait for the report on our own thread: that thread
/// would join gRPC's polling, which costs some ten system calls for every card.
class CConnectionWatch {
 public:
  /// `isConnected` says whether the peer's main connection is up. `lost` is called when that connection may
  /// have been lost. Both run on gRPC's threads and must not block.
  CConnectionWatch(const std::string& address, std::function<bool()> isConnected, std::function<void()> lost);
  ~CConnectionWatch();  ///< waits for calls in progress
  CConnectionWatch(const CConnectionWatch&) = delete;
  CConnectionWatch& operator=(const CConnectionWatch&) = delete;

  /// Watches the peer until `lost` has been called. Does nothing while the peer is already watched.
  void Begin();

 private:
  using Functor = grpc_completion_queue_functor;
  struct Event : Functor {
    CConnectionWatch* watch = nullptr;
  };

  static Event MakeEvent(CConnectionWatch* watch, void (*run)(Functor*, int));
  static void TakeChange(Functor* event, int ok);
  static void TakeShutdown(Functor* event, int ok);
  void WaitForChange(grpc_connectivity_state state);
  bool IsLost();
  void NoteCallEnded();

  /// Keeps gRPC initialised.
  const struct Library {
    Library() { grpc_init(); }
    ~Library() { grpc_shutdown(); }
  } mLibrary;
  const std::function<bool()> mIsConnected;
  const std::function<void()> mLost;
  Event mChange;
  Event mShutdown;
  grpc_completion_queue* const mQueue;
  grpc_channel* const mChannel;
  std::mutex mMutex;  ///< guards the rest, and the channel's end
  bool mIsWatching = false;
  bool mIsEnding = false;
  unsigned mCalls = 1;  ///< gRPC's calls that are still to come or in progress; TakeShutdown always comes
  std::condition_variable mCallEnded;
  grpc_connectivity_state mState = GRPC_CHANNEL_IDLE;  ///< when the wait for a change began
};
