#include "framework/interfaces.h"

const char* ERfidAuthStateToString(ipc::ERfidAuthState state) {
  const std::string& name = ipc::ERfidAuthState_Name(state);  // proto3 keeps unknown enum values
  return name.empty() ? "ERfidAuthState unknown" : name.c_str();
}
