#pragma once

#include <grpc/grpc.h>

#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <string>

/// Tells when a peer's server goes, without looking from time to time.
///
/// A connection of its own, on which nothing is sent, ends with the server. The library reports that on one
/// of its own threads: a thread that waits for it here would take part in the library's polling for
/// everybody, at the cost of some ten system calls for every card.
class CConnectionWatch {
 public:
  /// `isConnected` says whether the connection that matters is there. `lost` is called when it may have been
  /// lost. Both are called on threads of the library's and must not block.
  CConnectionWatch(const std::string& address, std::function<bool()> isConnected, std::function<void()> lost);
  ~CConnectionWatch();  ///< waits for calls in progress
  CConnectionWatch(const CConnectionWatch&) = delete;
  CConnectionWatch& operator=(const CConnectionWatch&) = delete;

  /// From now on until `lost` has been called the peer is watched. Does nothing when it already is.
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
  void EndWait();

  /// Keeps the library initialised.
  const struct Library {
    Library() { grpc_init(); }
    ~Library() { grpc_shutdown(); }
  } mLibrary;
  const std::function<bool()> mIsConnected;
  const std::function<void()> mLost;
  Event mChange;
  Event mShutdown;
  std::promise<void> mIsShutDown;
  grpc_completion_queue* const mQueue;
  grpc_channel* const mChannel;
  std::mutex mMutex;  ///< guards the rest, and the channel's end
  bool mIsWatching = false;
  bool mIsEnding = false;
  unsigned mWaits = 0;  ///< calls of TakeChange that are still to come, or run
  std::condition_variable mWaitEnded;
  grpc_connectivity_state mState = GRPC_CHANNEL_IDLE;  ///< when the wait for a change began
};
