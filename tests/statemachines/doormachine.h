#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "statemachines/hsm.h"

/// A small machine for the engine's tests: a door that is open or closed.
struct DoorTag {
  static constexpr std::array<std::string_view, 5> kEventNames{"Close", "Knock", "Open", "Ring", "Say"};
};
using Close = CHsmEvent<DoorTag, 0>;
using Knock = CHsmEvent<DoorTag, 1>;
using Open = CHsmEvent<DoorTag, 2>;
using Ring = CHsmEvent<DoorTag, 3>;
using Say = CHsmEvent<DoorTag, 4, std::string>;

class DoorHandler : public CHsmActionHandlerBase {
 public:
  std::function<void(const std::string&)> OnAction = [](const std::string&) {};
};

using DoorMachine = CHsm<DoorHandler>;

template <>
struct CHsmDefinitionOf<DoorHandler> {
  static const CHsmDefinition<DoorMachine>& Get();
};

template <unsigned Id>
using DoorLeaf =
    CHsmRow<DoorMachine, LeafState<DoorMachine, Id, CompState<DoorMachine, 0, TopState<DoorMachine>>>>;

inline const CHsmDefinition<DoorMachine>& CHsmDefinitionOf<DoorHandler>::Get() {
  using Action = CHsmAction<DoorMachine>;
  static const Action enterClosed{
      "enterClosed", [](DoorMachine& hsm, const auto&) { hsm.GetHandler().OnAction("enter Closed"); }};
  static const Action leaveClosed{
      "leaveClosed", [](DoorMachine& hsm, const auto&) { hsm.GetHandler().OnAction("leave Closed"); }};
  static const Action enterOpen{
      "enterOpen", [](DoorMachine& hsm, const auto&) { hsm.GetHandler().OnAction("enter Open"); }};
  static const Action knocked{"knocked",
                              [](DoorMachine& hsm, const auto&) { hsm.GetHandler().OnAction("knocked"); }};
  static const Action said{"said", [](DoorMachine& hsm, const std::shared_ptr<IHsmEvent>& event) {
                             hsm.GetHandler().OnAction(std::dynamic_pointer_cast<Say>(event)->GetPayload());
                           }};
  static const CHsmDefinition<DoorMachine> definition{
      .name = "Door",
      .initial = 1,
      .reactions = {CHsmOn<DoorMachine, Knock>::Do(knocked), CHsmOn<DoorMachine, Close>::GoTo(1)},
      .leaves =
          LeavesInOrder(DoorLeaf<1>{"Closed",
                                    {enterClosed},
                                    {leaveClosed},
                                    {CHsmOn<DoorMachine, Open>::GoTo(2), CHsmOn<DoorMachine, Say>::Do(said)}},
                        DoorLeaf<2>{"Open", {enterOpen}, {}, {}})};
  return definition;
}
