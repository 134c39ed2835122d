#pragma once

#include <string>

#include "src/components/rfidhsm.h"

/// The machine as a drawing, in the text of a drawing program. What all states do about events that they have
/// no reaction of their own to is drawn once, at a box "any state".
std::string ToDot(const CHsmDefinition<CRfidHsm>& machine);      ///< for Graphviz
std::string ToMermaid(const CHsmDefinition<CRfidHsm>& machine);  ///< a stateDiagram-v2
