#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "framework/log.h"
#include "statemachines/hsmactionhandler.h"
#include "statemachines/hsmdefinition.h"

/// Root of the state templates. State objects hold no data: each leaf has one constant object.
template <typename Hsm>
class TopState {
 public:
  /// Dispatches one event while this leaf is the current state: its own reactions are tested first, then
  /// those of the composite.
  virtual void Handle(Hsm& hsm, const std::shared_ptr<IHsmEvent>& event) const = 0;
  virtual unsigned GetId() const = 0;
};

template <typename Hsm, unsigned Id, typename Parent>
class CompState : public Parent {};

template <typename Hsm, unsigned Id, typename Parent>
class LeafState : public Parent {
 public:
  static constexpr unsigned kId = Id;

  void Handle(Hsm& hsm, const std::shared_ptr<IHsmEvent>& event) const override {
    const auto& machine = Hsm::Definition();
    const auto& leaf = machine.Leaf(Id);
    Log::Trace("State {}: event recv {}", leaf.name, event->GetName());
    if (const auto* reaction = Find(leaf.reactions, *event)) {
      CarryOutAsLeaf(hsm, leaf.name, *reaction, event);
    } else if (const auto* inherited = Find(machine.reactions, *event)) {
      hsm.CarryOut(machine.name, *inherited, event);
    } else {
      Log::Trace("State {}: event unhn {}", machine.name, event->GetName());
      event->mHandled.set_value(false);
    }
  }

  unsigned GetId() const override { return Id; }

  static const LeafState kInstance;

 private:
  template <typename Reactions>
  static auto Find(const Reactions& reactions, const IHsmEvent& event) -> decltype(reactions.data()) {
    for (const auto& reaction : reactions) {
      if (reaction.Matches(event)) {
        return &reaction;
      }
    }
    return nullptr;
  }

  /// An exception from a leaf's own transition ends the process here, where the stack still shows its source.
  template <typename Reaction>
  static void CarryOutAsLeaf(Hsm& hsm, const std::string& owner, const Reaction& reaction,
                             const std::shared_ptr<IHsmEvent>& event) {
    if (reaction.target == Reaction::kInternal) {
      hsm.CarryOut(owner, reaction, event);
    } else {
      [&]() noexcept { hsm.CarryOut(owner, reaction, event); }();
    }
  }
};

template <typename Hsm, unsigned Id, typename Parent>
inline const LeafState<Hsm, Id, Parent> LeafState<Hsm, Id, Parent>::kInstance{};

/// Gives a machine its definition. Every actions interface that has a machine specialises it.
template <typename Handler>
struct CHsmDefinitionOf;

/// A hierarchical state machine over the actions interface `Handler`: event queue, dispatch loop and trace.
///
/// Threads: see IHsmInterface. The lock is never held while a reaction runs. The engine catches no exception:
/// actions handle their own failures and report them as events.
template <typename Handler>
class CHsm final : public IHsmInterface {
 public:
  using State = TopState<CHsm>;

  explicit CHsm(std::shared_ptr<Handler> handler) : mHandler(std::move(handler)) { mHandler->mHsm = this; }
  ~CHsm() {
    AbandonAll();
    // Destroying an event may post another one, so destroy the events while the machine still works.
    std::deque<std::shared_ptr<IHsmEvent>> last;
    {
      const std::lock_guard lock(mMutex);
      last.swap(mQueue);
    }
  }
  CHsm(const CHsm&) = delete;
  CHsm& operator=(const CHsm&) = delete;

  static const CHsmDefinition<CHsm>& Definition() { return CHsmDefinitionOf<Handler>::Get(); }

  Handler& GetHandler() { return *mHandler; }

  /// Called for each leaf that is entered, before its entry actions, on the machine's thread. Set before Run.
  std::function<void(const std::string& leaf)> OnEntry;

  void PostEvent(const std::shared_ptr<IHsmEvent>& event) override {
    {
      const std::lock_guard lock(mMutex);
      mQueue.push_back(event);
      if (mEnded) {
        Abandon(event);
      }
    }
    mPosted.notify_all();
  }

  void Run() override {
    if (mCurrent == nullptr) {
      Log::Trace("State {}: init", Definition().name);
      Enter(Definition().initial, nullptr);
    }
    while (const auto event = Next()) {
      if (*event) {
        mCurrent->Handle(*this, *event);
      }
    }
  }

  void Stop() override {
    {
      const std::lock_guard lock(mMutex);
      mRunning = false;
    }
    mPosted.notify_all();
  }

  bool IsRunning() const override {
    const std::lock_guard lock(mMutex);
    return mRunning;
  }

  /// Carries out the reaction of `owner` (a leaf or the composite) to the event. The poster gets its answer
  /// before any action runs. For the state templates only.
  void CarryOut(const std::string& owner, const CHsmReaction<CHsm>& reaction,
                const std::shared_ptr<IHsmEvent>& event) {
    Log::Trace("State {}: event hndl {}", owner, event->GetName());
    event->mHandled.set_value(true);
    if (reaction.target == CHsmReaction<CHsm>::kInternal) {
      Perform(reaction.actions, event);
      return;
    }
    const auto& leaf = Definition().Leaf(mCurrent->GetId());
    Log::Trace("State {}: exit", leaf.name);
    Perform(leaf.exit, event);
    Enter(reaction.target, event);
  }

 private:
  void Enter(unsigned target, const std::shared_ptr<IHsmEvent>& event) {
    const auto& leaf = Definition().Leaf(target);
    Log::Trace("State {}: entry", leaf.name);
    if (OnEntry) {
      OnEntry(leaf.name);
    }
    Perform(leaf.entry, event);
    mCurrent = leaf.state;
  }

  void Perform(const std::vector<CHsmAction<CHsm>>& actions, const std::shared_ptr<IHsmEvent>& event) {
    for (const auto& action : actions) {
      action.run(*this, event);
    }
  }

  /// The next event to dispatch, or nothing once the machine is stopped.
  std::optional<std::shared_ptr<IHsmEvent>> Next() {
    std::unique_lock lock(mMutex);
    mPosted.wait(lock, [this] { return !mRunning || !mQueue.empty(); });
    if (!mRunning) {
      AbandonAll();
      return std::nullopt;
    }
    auto event = std::move(mQueue.front());
    mQueue.pop_front();
    return event;
  }

  /// Queued events are no longer dispatched, so their posters must stop waiting.
  void AbandonAll() {
    if (!mEnded) {
      mEnded = true;
      for (const auto& event : mQueue) {
        Abandon(event);
      }
    }
  }

  static void Abandon(const std::shared_ptr<IHsmEvent>& event) {
    if (event) {
      event->mHandled.set_exception(
          std::make_exception_ptr(std::future_error(std::future_errc::broken_promise)));
    }
  }

  const std::shared_ptr<Handler> mHandler;
  const State* mCurrent = nullptr;
  std::deque<std::shared_ptr<IHsmEvent>> mQueue;  // guarded by mMutex
  bool mRunning = true;                           // guarded by mMutex
  bool mEnded = false;                            // guarded by mMutex; nothing is dispatched any more
  std::condition_variable mPosted;
  mutable std::mutex mMutex;
};
