#pragma once

#include <memory>
#include <stdexcept>
#include <utility>

#include "statemachines/hsmevent.h"

/// A machine as everyone outside the engine sees it. Owned through shared pointers to the concrete machine.
struct IHsmInterface {
  /// Queues the event behind those already waiting. Any thread, at any time, also from a reaction. Never
  /// waits for the dispatch. Once Run has returned, the event's completion is a broken promise.
  virtual void PostEvent(const std::shared_ptr<IHsmEvent>& event) = 0;

  /// Lends the calling thread to the machine until Stop: every reaction runs on it, one event at a time.
  virtual void Run() = 0;

  /// Lets the reaction in progress finish, then ends Run. Any thread, also from a reaction.
  virtual void Stop() = 0;

  virtual bool IsRunning() const = 0;
};

/// Base of every actions interface. Through it, actions and reactions post events to their machine.
class CHsmActionHandlerBase {
 public:
  /// Posts a new event and returns at once. Throws std::logic_error when this handler has no machine yet.
  template <typename Event, typename... Payload>
  void SendEvent(Payload&&... payload) {
    PostEvent(std::make_shared<Event>(std::forward<Payload>(payload)...));
  }

  /// The same with an event that the caller has made.
  void PostEvent(const std::shared_ptr<IHsmEvent>& event) {
    if (mHsm == nullptr) {
      throw std::logic_error("CHsmActionHandlerBase: IHsmInterface not set");
    }
    mHsm->PostEvent(event);
  }

  IHsmInterface* mHsm = nullptr;  ///< not owned; set by the machine's constructor
};
