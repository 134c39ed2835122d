#pragma once

#include <future>
#include <memory>
#include <string>
#include <tuple>

/// Base of every event of every state machine.
///
/// An event object is posted once: the dispatch fulfils mHandled with true when a state reacted, otherwise
/// with false. Create events with std::make_shared of the concrete type: its shared pointer destroys them, so
/// no virtual destructor is needed.
struct IHsmEvent {
  std::promise<bool> mHandled;

  virtual const std::string& GetName() const = 0;
};

/// One kind of event: number `Id` of the machine that `Tag` stands for, with an optional payload. Its name is
/// `Tag::kEventNames[Id]`.
template <typename Tag, unsigned Id, typename... Payload>
struct CHsmEvent final : public IHsmEvent {
  static_assert(sizeof...(Payload) <= 1, "an event carries one value at most");

  explicit CHsmEvent(Payload... payload) : mPayload(std::move(payload)...) {}

  const std::string& GetName() const override { return kName; }

  /// The value that the event carries.
  const auto& GetPayload() const { return std::get<0>(mPayload); }

  static const std::string& Name() { return kName; }

 private:
  std::tuple<Payload...> mPayload;

  inline static const std::string kName{Tag::kEventNames[Id]};
};
