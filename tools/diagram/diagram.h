#pragma once

#include <string>

#include "src/components/rfidhsm.h"

/// The machine as a drawing, in the text of a drawing program. What all states do about events that they have
/// no reaction of their own to is drawn once, at a box "any state".
std::string ToDot(const CHsmDefinition<CRfidHsm>& machine);      ///< for Graphviz
std::string ToMermaid(const CHsmDefinition<CRfidHsm>& machine);  ///< a stateDiagram-v2

/// What a program of one's own needs to draw the machine: {"initial": STATE, "last": STATE, "anyState":
/// STATE, "states": [STATE...], "transitions": [{"from": STATE, "to": STATE, "event": NAME}...]}. "anyState"
/// is among the states and stands for those that have no reaction of their own.
std::string ToJson(const CHsmDefinition<CRfidHsm>& machine);
