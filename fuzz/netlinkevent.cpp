// What the event monitor reads from an event: the command and the device.
#include <linux/nfc.h>

#include "fuzz/netlinkmessage.h"
#include "src/components/nfcmessages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const NetlinkMessage message(data, size);
  const auto command = DecodeCommand(message.Header());
  FUZZ_CHECK(command.has_value() == message.HasHeaders() && (!command || *command == message.Command()));
  const auto payload = Unambiguous(message.Payload(), NFC_ATTR_MAX);
  FUZZ_CHECK(DecodeDeviceIndex(message.Header()) == FindNumber(payload, NFC_ATTR_DEVICE_INDEX));
  return 0;
}
