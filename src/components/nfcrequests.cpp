#include "src/components/nfcrequests.h"

#include <linux/genetlink.h>
#include <linux/nfc.h>
#include <netlink/errno.h>
#include <netlink/genl/genl.h>

#include <cerrno>

namespace NfcRequests {

const NfcRequest kGetFamily{.command = CTRL_CMD_GETFAMILY,
                            .flags = 0,
                            .version = 0,
                            .noMessage = "Couldn't allocate netlink message struct. No memory available.",
                            .noHeader = "Null header when creating genl message.",
                            .noMessageCode = NLE_NOMEM,
                            .noHeaderCode = NLE_INVAL};

const NfcRequest kGetDevice{.command = NFC_CMD_GET_DEVICE,
                            .flags = NLM_F_DUMP,
                            .version = 1,
                            .noMessage = "Error allocating struct nl_msg.",
                            .noHeader = "Error: genlmsg_put returned null netlink header.",
                            .noMessageCode = NLE_NOMEM,
                            .noHeaderCode = NLE_INVAL};

const NfcRequest kDeviceUp{.command = NFC_CMD_DEV_UP,
                           .flags = 0,
                           .version = 1,
                           .noMessage = "Error allocating nl_msg. No memory available.",
                           .noHeader = "Null header in genlmsg_put within SetDevicePower().",
                           .noMessageCode = NLE_NOMEM,
                           .noHeaderCode = NLE_NOMEM};

const NfcRequest kDeviceDown{.command = NFC_CMD_DEV_DOWN,
                             .flags = 0,
                             .version = 1,
                             .noMessage = kDeviceUp.noMessage,
                             .noHeader = kDeviceUp.noHeader,
                             .noMessageCode = NLE_NOMEM,
                             .noHeaderCode = NLE_NOMEM};

const NfcRequest kStartPoll{.command = NFC_CMD_START_POLL,
                            .flags = NLM_F_REQUEST,
                            .version = 1,
                            .noMessage = "Could not allocate netlink socket",
                            .noHeader = "Null header in genlmsg_put within StartPolling",
                            .noMessageCode = NLE_NOMEM,
                            .noHeaderCode = NLE_INVAL};

const NfcRequest kStopPoll{.command = NFC_CMD_STOP_POLL,
                           .flags = NLM_F_REQUEST,
                           .version = 1,
                           .noMessage = "Could not allocate netlink socket",
                           .noHeader = "Null header in genlmsg_put within StopPolling",
                           .noMessageCode = NLE_NOMEM,
                           .noHeaderCode = NLE_INVAL};

const NfcRequest kGetTarget{.command = NFC_CMD_GET_TARGET,
                            .flags = NLM_F_DUMP,
                            .version = 1,
                            .noMessage = "",
                            .noHeader = "",
                            .noMessageCode = ENOMEM,
                            .noHeaderCode = NLE_INVAL};

const NfcRequest kUnspec{.command = NFC_CMD_UNSPEC,
                         .flags = 0,
                         .version = 1,
                         .noMessage = "Error allocating struct nl_msg.",
                         .noHeader = "Error: genlmsg_put returned null netlink header.",
                         .noMessageCode = NLE_NOMEM,
                         .noHeaderCode = NLE_INVAL};

}  // namespace NfcRequests

BuiltRequest BuildRequest(const NfcRequest& request, int family,
                          std::initializer_list<NfcAttribute> attributes) {
  NlMessage message(nlmsg_alloc());
  if (!message) {
    return {.message = nullptr, .failure = request.noMessage, .code = request.noMessageCode};
  }
  if (genlmsg_put(message.get(), NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, request.flags, request.command,
                  request.version) == nullptr) {
    return {.message = nullptr, .failure = request.noHeader, .code = request.noHeaderCode};
  }
  for (const auto& attribute : attributes) {
    nla_put_u32(message.get(), attribute.type, attribute.value);
  }
  return {.message = std::move(message)};
}
