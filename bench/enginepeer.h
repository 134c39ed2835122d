#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "src/components/rfidhsmactionhandlerbase.h"

/// The peer of the engine: the same machine as a hand-written switch, over the same queue with the same
/// promises.
namespace bench {

ipc::MRfidToken MakeToken(const std::string& uid);

/// The actions of both machines: almost empty, behind the daemon's own interface.
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

/// An event of the switch: a number instead of a type.
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

/// The switch in its thread's loop, with the operations that engine.cpp measures.
class SwitchPeer {
 public:
  explicit SwitchPeer(const std::shared_ptr<CountingHandler>& handler);

  void Enable() { Post(EPeerEvent::Enable); }
  void Disable() { Post(EPeerEvent::Disable); }
  void Alive() { Post(EPeerEvent::Alive); }
  void Unhandled() { Post(EPeerEvent::Recover); }
  void Token(const std::string& uid) { PostEvent(std::make_shared<UidEvent>(uid)); }
  bool EnableAndWait();
  void Run();
  void Stop();

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

  void Post(EPeerEvent event) { PostEvent(std::make_shared<PeerEvent>(event)); }
  void PostEvent(std::shared_ptr<PeerEvent> event);
  std::shared_ptr<PeerEvent> Take();  ///< null when it was stopped

  /// Each returns whether a state took the event.
  bool Process(PeerEvent& event);
  bool ProcessInLeaf(PeerEvent& event);
  bool ProcessWhileEnabled(PeerEvent& event);
  void Leave();

  const std::shared_ptr<CountingHandler> mHandler;
  EState mState = EState::Uninitialized;
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::deque<std::shared_ptr<PeerEvent>> mEvents;
  bool mStopped = false;
};

}  // namespace bench
