#pragma once

// The peers of the engine: the same machine as a hand-written switch and in Boost.MSM, over the same queue
// with the same promises. Also compiled as C++17, because Boost 1.74's MSM does not compile as C++20.

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "src/components/rfidhsmactionhandlerbase.h"

namespace bench {

/// The actions of every machine: almost empty, behind the daemon's own interface.
class CountingHandler : public CRfidHsmActionHandlerBase {
 public:
  std::function<void(const std::string&)> onToken;

  void IntAttemptRecovery() override { ++mCalls; }
  void IntAuthenticateToken(const std::shared_ptr<IntOnAuthTokenFound>& event) override {
    onToken(event->GetPayload());
  }
  void IntDeinitialize() override { ++mCalls; }
  void IntEnableLearningTask(const std::shared_ptr<ExtOnEnableLearning>& /*event*/) override { ++mCalls; }
  void IntInitialize() override { ++mCalls; }
  void IntStopAliveTimer() override { ++mCalls; }
  void IntProcessError() override { ++mCalls; }
  void IntInjectToken(const std::shared_ptr<ExtOnInjectToken>& /*event*/) override { ++mCalls; }
  void IntStartAliveTimer() override { ++mCalls; }
  void IntStartPolling() override { ++mCalls; }
  void IntStopPolling() override { ++mCalls; }

 private:
  unsigned long mCalls = 0;
};

enum class EPeerEvent {
  Disable,
  Enable,
  Alive,
  Initialized,
  Enabled,
  Disabled,
  Error,
  FatalError,
  Recover,
  TokenFound,
  TokenDone
};

/// An event of the peers: a number instead of a type.
struct PeerEvent {
  explicit PeerEvent(EPeerEvent what) : id(what) {}
  virtual ~PeerEvent() = default;
  EPeerEvent id;
  std::promise<bool> handled;
};

struct UidEvent : PeerEvent {
  explicit UidEvent(std::string text) : PeerEvent(EPeerEvent::TokenFound), uid(std::move(text)) {}
  std::string uid;
};

struct TokenEvent : PeerEvent {
  explicit TokenEvent(ipc::MRfidToken outcome)
      : PeerEvent(EPeerEvent::TokenDone), token(std::move(outcome)) {}
  ipc::MRfidToken token;
};

/// The engine's queue.
class PeerQueue {
 public:
  void Post(std::shared_ptr<PeerEvent> event) {
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      mEvents.push_back(std::move(event));
    }
    mChanged.notify_all();
  }
  /// Null when it was stopped.
  std::shared_ptr<PeerEvent> Take() {
    std::unique_lock<std::mutex> lock(mMutex);
    mChanged.wait(lock, [this] { return mStopped || !mEvents.empty(); });
    if (mStopped) {
      return nullptr;
    }
    auto event = std::move(mEvents.front());
    mEvents.pop_front();
    return event;
  }
  void Stop() {
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      mStopped = true;
    }
    mChanged.notify_all();
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::deque<std::shared_ptr<PeerEvent>> mEvents;
  bool mStopped = false;
};

using PostEvent = std::function<void(EPeerEvent)>;

inline void Tell(const std::function<void()>& callback) {
  if (callback) {
    callback();
  }
}

/// Each Process returns whether a state took the event.
class SwitchMachine {
 public:
  SwitchMachine(CountingHandler& handler, PostEvent post) : mHandler(handler), mPost(std::move(post)) {}
  bool Process(PeerEvent& event);

 private:
  enum class EState {
    Uninitialized,
    Initializing,
    Disabled,
    Enabling,
    Enabled,
    Disabling,
    Error,
    FatalError
  };

  bool ProcessInLeaf(PeerEvent& event);
  bool ProcessWhileEnabled(PeerEvent& event);
  void Leave();

  CountingHandler& mHandler;
  const PostEvent mPost;
  EState mState = EState::Uninitialized;
};

class MsmMachine {
 public:
  MsmMachine(CountingHandler& handler, PostEvent post);
  ~MsmMachine();
  bool Process(PeerEvent& event);

 private:
  class Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace bench
