// One message of the list of tags: the UID has a possible length and only bytes of the message.
#include <linux/nfc.h>

#include "fuzz/netlinkmessage.h"
#include "src/components/nfcmessages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const NetlinkMessage message(data, size);
  const auto target = DecodeTarget(message.Header());

  const auto payload = Unambiguous(message.Payload(), NFC_ATTR_MAX);
  const auto protocols = FindNumber(payload, NFC_ATTR_PROTOCOLS);
  FUZZ_CHECK(target.has_value() == protocols.has_value());
  if (!target) {
    return 0;
  }
  FUZZ_CHECK(target->protocols == *protocols);
  Bytes expected = Find(payload, NFC_ATTR_TARGET_NFCID1).value_or(Bytes());
  if (expected.empty() || expected.size() > 10) {
    expected = Find(payload, NFC_ATTR_TARGET_ISO15693_UID).value_or(Bytes());
    std::reverse(expected.begin(), expected.end());
    expected.resize(expected.size() == 8 ? 8 : 0);
  }
  FUZZ_CHECK(target->uid == expected);

  const auto text = FormatUid(target->uid);
  FUZZ_CHECK(text.size() == 2 * expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    FUZZ_CHECK(std::stoul(text.substr(2 * i, 2), nullptr, 16) == expected[i]);
  }
  FUZZ_CHECK(text.find_first_not_of("0123456789ABCDEF") == std::string::npos);
  return 0;
}
