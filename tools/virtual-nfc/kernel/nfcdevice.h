#pragma once

// The kernel's state of one NFC device: power, poll and its owner, the last find. No clock, no sockets.

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/virtual-nfc/kernel/tag.h"

namespace virtualnfc {

struct Target {
  std::uint32_t index = 0;
  Tag tag;
};

/// Faults of a reader that cause neither an event nor an error. docs/man/virtual-nfc.1 describes the faults.
enum class Fault {
  /// The poll finds nothing more, but commands answer as if it were alive. Ends with the poll; needs a poll
  /// to start.
  PollDead,
  /// Nothing is found, although all commands succeed.
  Deaf,
  /// Kernel and chip disagree whether the chip polls. Ends with the power. Nci.
  OutOfStep,
  /// The chip goes on polling after STOP_POLL. Ends with the power. Nci.
  ChipPolls,
};

/// @throws std::invalid_argument naming the known ones
Fault ParseFault(std::string_view name);
/// In the order of Fault.
const std::vector<std::string>& FaultNames();
inline const std::string& FaultName(Fault fault) {
  return FaultNames()[static_cast<std::size_t>(fault)];
}

struct DeviceStatus {
  std::uint32_t index = 0;
  std::string name;
  bool powered = false;
  bool polling = false;
  /// Unplugged, but still listed.
  bool removed = false;
  std::uint32_t ownerPort = 0;
  std::uint32_t mask = 0;
  /// Targets found since the device was plugged in.
  std::uint32_t targetsFound = 0;
  std::vector<Fault> faults;

  bool Has(Fault fault) const { return std::find(faults.begin(), faults.end(), fault) != faults.end(); }
};

/// All operations answer as the kernel does: 0 or a positive errno.
class NfcDevice {
 public:
  /// @param assumeAlready START_POLL while polling and STOP_POLL while not polling answer EALREADY
  NfcDevice(std::uint32_t index, Stack stack, bool assumeAlready);

  int PowerUp();
  int PowerDown();
  /// @param port netlink port of the asking socket, which becomes the owner of the poll
  int StartPoll(std::uint32_t port, std::uint32_t mask);
  int StopPoll(std::uint32_t port);

  /// What StartPoll and StopPoll would answer.
  int CheckStartPoll(std::uint32_t mask) const;
  int CheckStopPoll(std::uint32_t port) const;

  void SetFault(Fault fault, bool on = true);
  bool Has(Fault fault) const { return mStatus.Has(fault); }

  /// The reader looks for the tags in its field. With Nci, a single tag without a known protocol kills the
  /// poll.
  /// @returns whether targets were found, which ends the poll
  bool Detect(const std::vector<Tag>& field);
  /// A tag is found after the poll has ended. The find is still counted.
  void DropFind() { ++mStatus.targetsFound; }
  /// The device was unplugged. It answers as long as it stays listed.
  void Remove() { mStatus.removed = true; }

  const DeviceStatus& Status() const { return mStatus; }
  std::uint32_t Index() const { return mStatus.index; }
  /// The protocols it supports.
  std::uint32_t Protocols() const;
  /// Unique per poll.
  std::uint32_t PollId() const { return mPollId; }
  /// The last find. It stays when the tag, the poll or the power goes.
  const std::vector<Target>& Targets() const { return mTargets; }

 private:
  void EndPoll();
  std::vector<Tag> KnownOf(std::vector<Tag> seen) const;

  const Stack mStack;
  const bool mAssumeAlready;
  DeviceStatus mStatus;
  std::uint32_t mPollId = 0;
  std::vector<Target> mTargets;
};

}  // namespace virtualnfc
