#include "framework/interfaces.h"

const char* ERfidAuthStateToString(ipc::ERfidAuthState state) {
  // proto3 enumerations are open: the wire may carry any number, and the generated sentinels are none of
  // ours.
  if (state == ipc::ERfidUidInStandAloneList) {
    return "ERfidUidInStandAloneList";
  }
  if (state == ipc::ERfidAuthDeferred) {
    return "ERfidAuthDeferred";
  }
  if (state == ipc::ERfidUidNotInList) {
    return "ERfidUidNotInList";
  }
  if (state == ipc::ERfidUidInvalid) {
    return "ERfidUidInvalid";
  }
  return "ERfidAuthState unknown";
}
