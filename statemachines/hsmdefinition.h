#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <typeindex>
#include <typeinfo>
#include <utility>
#include <vector>

#include "statemachines/hsmevent.h"

// A machine written down as data: its states and their reactions, in the order in which they are tested. Each
// machine has one constant definition, which the state objects and the diagram read.

/// One step of a reaction, an entry or an exit. `event` is the event being dispatched (null on the initial
/// transition).
template <typename Machine>
struct CHsmAction {
  std::string_view name;
  void (*run)(Machine& machine, const std::shared_ptr<IHsmEvent>& event);
};

/// A state's reaction to one kind of event.
template <typename Machine>
struct CHsmReaction {
  static constexpr unsigned kInternal = 0;  ///< no target: the state stays

  std::type_index event;
  const std::string* eventName;
  unsigned target;                           ///< id of the leaf to go to, or kInternal
  std::vector<CHsmAction<Machine>> actions;  ///< of an internal reaction

  bool Matches(const IHsmEvent& other) const { return event == std::type_index(typeid(other)); }
};

/// A leaf state: where the machine can be.
template <typename Machine>
struct CHsmLeaf {
  std::string name;
  std::vector<CHsmAction<Machine>> entry;
  std::vector<CHsmAction<Machine>> exit;
  std::vector<CHsmReaction<Machine>> reactions;
  const typename Machine::State* state = nullptr;
};

/// The composite state that holds all leaves. Every leaf inherits its reactions.
template <typename Machine>
struct CHsmDefinition {
  std::string name;
  unsigned initial;
  std::vector<CHsmReaction<Machine>> reactions;
  std::vector<CHsmLeaf<Machine>> leaves;  ///< from LeavesInOrder

  const CHsmLeaf<Machine>& Leaf(unsigned id) const { return leaves.at(id - 1); }
};

/// A leaf as a row of the machine's table. The type tells which leaf it is.
template <typename Machine, typename State>
struct CHsmRow : CHsmLeaf<Machine> {};

/// The leaves of a table. Their ids count from 1. Rows in another order do not compile.
template <typename Machine, typename... States>
std::vector<CHsmLeaf<Machine>> LeavesInOrder(CHsmRow<Machine, States>... rows) {
  static_assert(
      [] {
        unsigned id = 0;
        return ((States::kId == ++id) && ...);
      }(),
      "each row must stand at its leaf's id");
  ((rows.state = &States::kInstance), ...);
  return {std::move(rows)...};
}

/// A reaction as it stands in the table: On<ExtEnableReq>::GoTo(Enabling), On<IntAlive>::Do({...}).
template <typename Machine, typename Event>
struct CHsmOn {
  static CHsmReaction<Machine> GoTo(unsigned target) {
    return {std::type_index(typeid(Event)), &Event::Name(), target, {}};
  }
  static CHsmReaction<Machine> Do(CHsmAction<Machine> action) {
    return {std::type_index(typeid(Event)), &Event::Name(), CHsmReaction<Machine>::kInternal, {action}};
  }
};
