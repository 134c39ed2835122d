#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "framework/worker.h"

/// Alive supervision, a mixin between an actions interface `Base` and a concrete handler. While its timer
/// runs, it sends an alive message at once and then every 4 seconds.
///
/// Threads: start and stop on the machine's thread, the messages on the handler's worker thread, which the
/// concrete handler starts. ExtSendAlive is bound before the machine runs and never changes afterwards.
template <typename Base>
class CHsmAlive : public virtual Base, public virtual CWorker {
 public:
  static constexpr std::chrono::nanoseconds kAlivePeriod = std::chrono::seconds(4);

  std::function<void()> ExtSendAlive;  ///< sends the message; hides the interface's own member of this name

  ~CHsmAlive() override = default;

  /// Asked before each message. False suppresses it.
  virtual bool IsAlive() { return true; }

  void IntStartAliveTimer() override {
    mAliveCall = this->AddCall(
        [this] {
          if (IsAlive()) {
            ExtSendAlive();
          }
        },
        std::chrono::steady_clock::now(), kAlivePeriod);
  }

  /// Blocks until a message in progress has been sent. No further message follows.
  void IntStopAliveTimer() override {
    if (mAliveCall) {
      mAliveCall->Cancel();
      mAliveCall.reset();
    }
    this->Sync();
  }

 private:
  std::shared_ptr<CWorkerCall> mAliveCall;
};
