#pragma once

#include <string>

#include "ipc/common.pb.h"

/// "Enabled" for EStateEnabled. A state that this program does not know becomes its number.
inline std::string StateText(ipc::EState state) {
  constexpr std::size_t kPrefix = 6;  // "EState"
  const std::string& name = ipc::EState_Name(state);
  return name.empty() ? std::to_string(static_cast<int>(state)) : name.substr(kPrefix);
}
