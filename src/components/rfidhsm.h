#pragma once

#include "src/components/rfidhsmactionhandlerbase.h"
#include "statemachines/hsm.h"

/// The RFID machine: CHsm<CRfidHsmActionHandlerBase> over the definition below.
using CRfidHsm = CHsm<CRfidHsmActionHandlerBase>;

/// Ids of the leaf states.
namespace RfidHsmState {
enum Id : unsigned {
  Disabled = 1,            ///< reader down; waits for an enable request
  Disabling = 2,           ///< stops polling and closes the reader
  Enabled = 3,             ///< polling; tokens are processed; the alive timer runs
  Enabling = 4,            ///< opens the reader
  Error = 5,               ///< processes the error kept by the failing action
  FatalError = 6,          ///< no recovery possible; left only by termination
  Initializing = 7,        ///< passed through once after start-up
  Recovering = 8,          ///< one recovery attempt
  Terminating = 9,         ///< passed through on the way to the final leaf
  Uninitialized = 10,      ///< initial leaf; waits for the first disable request
  FinalStatemachine = 11,  ///< entering it stops the machine
};
}  // namespace RfidHsmState

/// The machine as a table; created at program start.
template <>
struct CHsmDefinitionOf<CRfidHsmActionHandlerBase> {
  static const CHsmDefinition<CRfidHsm>& Get();
};
