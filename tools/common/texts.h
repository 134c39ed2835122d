#pragma once

#include <fmt/format.h>
#include <json/value.h>

#include <string>

#include "ipc/common.pb.h"
#include "ipc/diagnostics.pb.h"

/// "Enabled" for EStateEnabled. A state that this program does not know becomes its number.
inline std::string StateText(ipc::EState state) {
  constexpr std::size_t kPrefix = 6;  // "EState"
  const std::string& name = ipc::EState_Name(state);
  return name.empty() ? std::to_string(static_cast<int>(state)) : name.substr(kPrefix);
}

/// "101 Rfid last scanned UID = 04A12B5C"
inline std::string SignalText(const ipc::MSignal& signal) {
  return fmt::format("{} {} = {}{}{}", static_cast<int>(signal.id()), signal.name(), signal.value(),
                     signal.unit().empty() ? "" : " ", signal.unit());
}

inline Json::Value SignalJson(const ipc::MSignal& signal) {
  Json::Value json;
  json["id"] = static_cast<int>(signal.id());
  json["name"] = signal.name();
  json["value"] = signal.value();
  json["unit"] = signal.unit();
  return json;
}
