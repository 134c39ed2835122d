#pragma once

#include <string>

#include "src/components/rfidhsm.h"

/// The machine as text for a drawing program. Reactions that all states share are drawn once, at a box "any
/// state".
std::string ToDot(const CHsmDefinition<CRfidHsm>& machine);      ///< for Graphviz
std::string ToMermaid(const CHsmDefinition<CRfidHsm>& machine);  ///< a stateDiagram-v2

/// A JavaScript module with what a program needs to draw the machine: machine = {"initial": STATE, "last":
/// STATE, "anyState": STATE, "transitions": [{"from": STATE, "to": STATE, "event": NAME}...]}. "anyState"
/// stands for the states that have no reaction of their own.
std::string ToJavaScript(const CHsmDefinition<CRfidHsm>& machine);
