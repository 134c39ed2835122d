#pragma once

#include <cstdint>
#include <initializer_list>

#include "src/components/nlhandles.h"

/// The requests that the controller sends, as data.

/// One kind of request, and what is said when its message cannot be built.
struct NfcRequest {
  uint8_t command;
  int flags;
  uint8_t version;
  const char* noMessage;  ///< there is no memory for a message
  const char* noHeader;   ///< the message has no room for its header
  int noMessageCode;
  int noHeaderCode;
};

namespace NfcRequests {
extern const NfcRequest kGetFamily;  ///< to the family "nlctrl"; all others to the family "nfc"
extern const NfcRequest kGetDevice;
extern const NfcRequest kDeviceUp;
extern const NfcRequest kDeviceDown;
extern const NfcRequest kStartPoll;
extern const NfcRequest kStopPoll;
extern const NfcRequest kGetTarget;
extern const NfcRequest kUnspec;
}  // namespace NfcRequests

struct NfcAttribute {
  int type;
  uint32_t value;
};

/// A message, or why there is none.
struct BuiltRequest {
  NlMessage message;
  const char* failure = nullptr;
  int code = 0;  ///< positive when there is no message
};

BuiltRequest BuildRequest(const NfcRequest& request, int family,
                          std::initializer_list<NfcAttribute> attributes = {});
