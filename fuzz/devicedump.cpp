// One message of the list of readers: index, name and protocols, or nothing.
#include <linux/nfc.h>

#include "fuzz/netlinkmessage.h"
#include "src/components/nfcmessages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const NetlinkMessage message(data, size);
  const auto device = DecodeDevice(message.Header());

  const auto payload = Unambiguous(message.Payload(), NFC_ATTR_MAX);
  const auto index = FindNumber(payload, NFC_ATTR_DEVICE_INDEX);
  const auto name = FindText(payload, NFC_ATTR_DEVICE_NAME);
  const auto protocols = FindNumber(payload, NFC_ATTR_PROTOCOLS);
  FUZZ_CHECK(device.has_value() == (index && name && protocols));
  if (device) {
    FUZZ_CHECK(device->index == *index && device->name == *name && device->protocols == *protocols);
    FUZZ_CHECK(!device->powered);
  }
  return 0;
}
