#pragma once

// The generic-netlink side of a kernel with NFC: the controller family and the family "nfc" over a number of
// devices. Request in, answer out. No clock, no threads, no sockets.

#include <linux/nfc.h>

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
  /// Given out by a kernel at run time, so another one has other numbers.
  std::uint16_t familyId = 20;
  std::uint32_t groupId = 3;
  std::string groupName = "events";
  /// False: a kernel without NFC.
  bool hasFamily = true;
  /// False: joining the events group takes a privilege that the programs do not have (EPERM).
  bool admitsListeners = true;
  /// False: the programs have no CAP_NET_ADMIN, and may not switch power or polling.
  bool privileged = true;
  /// START_POLL while polling and STOP_POLL while not polling answer EALREADY, which this kernel does not do.
  bool assumeAlready = false;
};

/// The multicast group of the controller family.
inline constexpr std::uint32_t kControllerGroupId = GENL_ID_CTRL;

class NfcKernel {
 public:
  explicit NfcKernel(KernelSettings settings);

  const KernelSettings& Settings() const { return mSettings; }

  struct Result {
    Answer answer;
    /// The errno of the answer, 0 for success.
    int error = 0;
    /// The device on which START_POLL was carried out.
    std::optional<std::uint32_t> startedPoll;
  };

  /// Carries the request out.
  /// @param port netlink port of the asking socket
  Result Handle(const Request& request, std::uint32_t port);

  /// Answers the request with an error without carrying it out.
  /// @param error positive; any number, also one that no header for programs names
  Result Refuse(const Request& request, std::uint32_t port, int error) const;

  /// What the rules are asked about; none for a message that is no command of a family here.
  std::optional<Occurrence> Classify(const Request& request, std::uint32_t port) const;

  /// What becomes of a command that has waited for the chip of a device which has gone in the meantime: an
  /// errno, or 0 when the command is carried out as any other.
  /// @param device the one that was there when the command began
  int ErrorOfVanishedChip(const Request& request, std::optional<std::uint32_t> device);

  static bool SwitchesPower(const Request& request) {
    return IsOneOf(request, {NFC_CMD_DEV_UP, NFC_CMD_DEV_DOWN});
  }
  /// These commands need an answer of the chip.
  static bool NeedsChip(const Request& request) {
    return IsOneOf(request, {NFC_CMD_DEV_UP, NFC_CMD_START_POLL});
  }
  static bool UsesDevice(const Request& request) {
    return IsOneOf(request, {NFC_CMD_DEV_UP, NFC_CMD_DEV_DOWN, NFC_CMD_START_POLL, NFC_CMD_STOP_POLL});
  }
  /// Whether a signal ends the wait for this command's chip. The others wait for something else, and go on;
  /// with Digital all do.
  bool IsInterruptible(const Request& request) const;

  /// A signal has ended the wait for the chip.
  Result Interrupt(const Request& request, std::uint32_t port);

  /// Whether a tag that is found in this moment holds the command up: a STOP_POLL that ends a poll, with Nci.
  bool CanCross(const Request& request, std::uint32_t port);

  /// A new device, with the given number.
  NfcDevice& AddDevice(std::uint32_t index);
  void EraseDevice(std::uint32_t index);
  /// Null when no such device is listed.
  NfcDevice* FindDevice(std::uint32_t index);
  /// In the order they came.
  const std::vector<std::unique_ptr<NfcDevice>>& Devices() const { return mDevices; }

  /// DEVICE_ADDED, DEVICE_REMOVED or TARGETS_FOUND of the device with this number.
  Bytes Event(std::uint8_t event, std::uint32_t index);

 private:
  Result HandleController(const Request& request, std::uint32_t port) const;
  Result HandleNfc(const Request& request, std::uint32_t port);
  Result Acknowledge(const Request& request, std::uint32_t port, int error, Result result) const;
  Result HandleDump(const Request& request, std::uint32_t port);
  int Execute(const Request& request, std::uint32_t port, Result& result);
  /// The device that the request is about; null when it names none, or one that is not there.
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
