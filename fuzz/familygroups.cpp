// The description of the family: the first entry with the group's name and an id gives the group's id.
#include "fuzz/netlinkmessage.h"
#include "src/components/nfcmessages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const NetlinkMessage message(data, size);
  std::optional<uint32_t> expected;
  const auto payload = Unambiguous(message.Payload(), CTRL_ATTR_MAX);
  const auto groups = Find(payload, CTRL_ATTR_MCAST_GROUPS).value_or(Bytes());
  for (const auto& [type, fields] : ReadAttributes(groups)) {
    const auto entry = Unambiguous(fields, CTRL_ATTR_MCAST_GRP_MAX);
    const auto id = FindNumber(entry, CTRL_ATTR_MCAST_GRP_ID);
    if (!expected && id && FindText(entry, CTRL_ATTR_MCAST_GRP_NAME) == "events") {
      expected = id;
    }
  }
  FUZZ_CHECK(DecodeMulticastGroup(message.Header(), "events") == expected);
  return 0;
}
