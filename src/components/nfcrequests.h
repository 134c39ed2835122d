#pragma once

#include <linux/genetlink.h>
#include <linux/nfc.h>
#include <netlink/errno.h>

#include <cerrno>
#include <cstdint>
#include <initializer_list>

#include "src/components/nlhandles.h"

/// One kind of request, and what to say when its message cannot be built.
struct NfcRequest {
  uint8_t command;
  const char* noMemory;  ///< there is no memory for a message
  const char* noHeader;  ///< the message has no room for its header
  int flags = 0;
  uint8_t version = 1;
  int noMemoryCode = NLE_NOMEM;
  int noHeaderCode = NLE_INVAL;
};

/// The requests that the controller sends: kGetFamily to the family "nlctrl", all others to the family "nfc".
namespace NfcRequests {

inline constexpr NfcRequest kGetFamily{
    .command = CTRL_CMD_GETFAMILY,
    .noMemory = "Couldn't allocate netlink message struct. No memory available.",
    .noHeader = "Null header when creating genl message.",
    .version = 0};
inline constexpr NfcRequest kGetDevice{.command = NFC_CMD_GET_DEVICE,
                                       .noMemory = "Error allocating struct nl_msg.",
                                       .noHeader = "Error: genlmsg_put returned null netlink header.",
                                       .flags = NLM_F_DUMP};
inline constexpr NfcRequest kDeviceUp{.command = NFC_CMD_DEV_UP,
                                      .noMemory = "Error allocating nl_msg. No memory available.",
                                      .noHeader = "Null header in genlmsg_put within SetDevicePower().",
                                      .noHeaderCode = NLE_NOMEM};
inline constexpr NfcRequest kDeviceDown{.command = NFC_CMD_DEV_DOWN,
                                        .noMemory = kDeviceUp.noMemory,
                                        .noHeader = kDeviceUp.noHeader,
                                        .noHeaderCode = NLE_NOMEM};
inline constexpr NfcRequest kStartPoll{.command = NFC_CMD_START_POLL,
                                       .noMemory = "Could not allocate netlink socket",
                                       .noHeader = "Null header in genlmsg_put within StartPolling",
                                       .flags = NLM_F_REQUEST};
inline constexpr NfcRequest kStopPoll{.command = NFC_CMD_STOP_POLL,
                                      .noMemory = kStartPoll.noMemory,
                                      .noHeader = "Null header in genlmsg_put within StopPolling",
                                      .flags = NLM_F_REQUEST};
inline constexpr NfcRequest kGetTarget{.command = NFC_CMD_GET_TARGET,
                                       .noMemory = "",
                                       .noHeader = "",
                                       .flags = NLM_F_DUMP,
                                       .noMemoryCode = ENOMEM};
/// The family has no such command: the kernel's error answer makes the sender's socket readable.
inline constexpr NfcRequest kUnspec{
    .command = NFC_CMD_UNSPEC, .noMemory = kGetDevice.noMemory, .noHeader = kGetDevice.noHeader};

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
