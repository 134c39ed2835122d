#include "src/components/nfcrequests.h"

#include <netlink/genl/genl.h>

BuiltRequest BuildRequest(const NfcRequest& request, int family,
                          std::initializer_list<NfcAttribute> attributes) {
  NlMessage message(nlmsg_alloc());
  if (!message) {
    return {.message = nullptr, .failure = request.noMemory, .code = request.noMemoryCode};
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
