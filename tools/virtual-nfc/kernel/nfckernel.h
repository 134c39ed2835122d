#pragma once

// The generic-netlink side of a kernel with NFC: the controller family and the family "nfc" with its devices.
// Request in, answer out. No clock, no threads, no sockets.

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/virtual-nfc/kernel/genlmessage.h"
#include "tools/virtual-nfc/kernel/nfcdevice.h"
#include "tools/virtual-nfc/kernel/rules.h"

namespace virtualnfc {

struct KernelSettings {
  Stack stack = Stack::Digital;
  /// A kernel assigns these numbers at run time.
  std::uint16_t familyId = 20;
  std::uint32_t groupId = 3;
  std::string groupName = "events";
  /// False: programs lack the privilege to join the events group (EPERM).
  bool admitsListeners = true;
  /// START_POLL while polling and STOP_POLL while not polling answer EALREADY. The real kernel does not do
  /// this.
  bool assumeAlready = false;
};

/// The multicast group of the controller family.
inline constexpr std::uint32_t kControllerGroupId = GENL_ID_CTRL;

class NfcKernel {
 public:
  explicit NfcKernel(KernelSettings settings);

  struct Result {
    Answer answer;
    /// The errno of the answer, 0 for success.
    int error = 0;
    /// The device whose poll a START_POLL has started.
    std::optional<std::uint32_t> startedPoll;
  };

  /// Carries the request out.
  /// @param port netlink port of the asking socket
  Result Handle(const Request& request, std::uint32_t port);

  /// Adds the error or the acknowledgement to what was answered before. @param error positive, or 0
  Result Acknowledge(const Request& request, std::uint32_t port, int error, Result result) const;
  /// Answers the request with an error without carrying it out. @param error positive
  Result Refuse(const Request& request, std::uint32_t port, int error) const {
    return Acknowledge(request, port, error, {});
  }

  /// The command, as rules see it; nothing when the message is no command of these families.
  std::optional<Occurrence> Classify(const Request& request) const;

  /// The errno of a command whose device was unplugged while the command waited for the chip; 0 when the
  /// command must be carried out. @param device the one that was there when the command began
  int ErrorOfVanishedChip(const Request& request, std::optional<std::uint32_t> device);

  static bool SwitchesPower(const Request& request) {
    return IsOneOf(request, {NFC_CMD_DEV_UP, NFC_CMD_DEV_DOWN});
  }
  /// Whether the command fails without an answer of the chip.
  static bool NeedsChip(const Request& request) {
    return IsOneOf(request, {NFC_CMD_DEV_UP, NFC_CMD_START_POLL});
  }
  static bool UsesDevice(const Request& request) {
    return IsOneOf(request, {NFC_CMD_DEV_UP, NFC_CMD_DEV_DOWN, NFC_CMD_START_POLL, NFC_CMD_STOP_POLL});
  }
  /// Whether a signal ends this command's wait for the chip. With Digital it never does.
  bool IsInterruptible(const Request& request) const;

  /// The result when a signal has ended the wait for the chip.
  Result Interrupt(const Request& request, std::uint32_t port);

  /// Whether the find of a tag at this moment would delay the command: a STOP_POLL that ends a poll, with
  /// Nci.
  bool CanCross(const Request& request, std::uint32_t port);

  void AddDevice(std::uint32_t index) {
    mDevices.push_back(std::make_unique<NfcDevice>(index, mSettings.stack, mSettings.assumeAlready));
  }
  void EraseDevice(std::uint32_t index) {
    std::erase_if(mDevices, [index](const auto& device) { return device->Index() == index; });
  }
  /// Null when no such device is listed.
  NfcDevice* FindDevice(std::uint32_t index);
  /// In the order in which they were plugged in.
  const std::vector<std::unique_ptr<NfcDevice>>& Devices() const { return mDevices; }

  /// DEVICE_ADDED, DEVICE_REMOVED or TARGETS_FOUND of the device with this number.
  Bytes Event(std::uint8_t event, std::uint32_t index);

 private:
  Result HandleController(const Request& request, std::uint32_t port) const;
  Result HandleNfc(const Request& request, std::uint32_t port);
  Result HandleDump(const Request& request, std::uint32_t port);
  int Execute(const Request& request, std::uint32_t port, Result& result);
  /// Null when the request names no device or one that is not listed.
  NfcDevice* DeviceOf(const Request& request);
  MessageBuilder Reply(const Request& request, std::uint16_t flags, std::uint32_t port) const;
  static Bytes PutDevice(MessageBuilder message, const NfcDevice& device);
  static bool IsOneOf(const Request& request, std::initializer_list<int> commands);
  Bytes FamilyMessage(const Request& request, std::uint16_t flags, std::uint32_t port,
                      std::uint16_t familyId) const;

  const KernelSettings mSettings;
  std::vector<std::unique_ptr<NfcDevice>> mDevices;
};

}  // namespace virtualnfc
