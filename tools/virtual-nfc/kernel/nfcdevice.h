#pragma once

// One NFC device as the kernel keeps it: power, polling and its owner, the last find. Pure state, no clock,
// no sockets.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/virtual-nfc/kernel/tag.h"

namespace virtualnfc {

struct Target {
  std::uint32_t index = 0;
  Tag tag;
};

/// What goes wrong with a reader without an event and without an error.
enum class Fault {
  /// A transfer to the reader failed, or its chip has reset itself: the poll finds nothing any more.
  /// START_POLL
  /// answers EBUSY and STOP_POLL 0 as if it were alive; the next poll is. Changes nothing while nobody polls.
  PollDead,
  /// Nothing is found, whatever commands come and though they succeed, until this ends. The reader cannot be
  /// configured; or, when it ends with the device only, its driver never completes a transfer.
  Deaf,
  /// Kernel and chip disagree whether it polls: START_POLL answers EBUSY and STOP_POLL EINVAL until the
  /// device
  /// is powered down. Nci.
  OutOfStep,
  /// The chip goes on polling after STOP_POLL: as OutOfStep, but START_POLL answers EALREADY. Nci.
  ChipPolls,
  /// A poll that the kernel knows nothing of: as OutOfStep, but powering down does not end it. The next tag
  /// does, and is not reported. Digital.
  Runaway,
  /// Another program has activated a target: START_POLL and DEV_DOWN answer EBUSY until it lets it go.
  TargetActive,
};

/// @throws std::invalid_argument naming the known ones
Fault ParseFault(std::string_view name);
std::string_view FaultName(Fault fault);
const std::vector<std::string>& FaultNames();

/// All operations answer as the kernel does: 0 or a positive errno.
class NfcDevice {
 public:
  /// @param assumeAlready START_POLL while polling and STOP_POLL while not polling answer EALREADY
  NfcDevice(std::uint32_t index, Stack stack, bool assumeAlready);

  int PowerUp();
  int PowerDown();
  /// @param port netlink port of the socket that asks; it owns the poll from then on
  int StartPoll(std::uint32_t port, std::uint32_t mask);
  int StopPoll(std::uint32_t port);

  /// What StartPoll and StopPoll would answer, without doing it.
  int CheckStartPoll(std::uint32_t mask) const;
  int CheckStopPoll(std::uint32_t port) const;

  /// The owner's socket is gone: the kernel ends its poll.
  void PortClosed(std::uint32_t port);

  void SetFault(Fault fault, bool on = true);
  bool Has(Fault fault) const { return mFaults[static_cast<std::size_t>(fault)]; }
  std::vector<Fault> Faults() const;

  /// The reader looks at what lies in its field. With Nci, a single tag without a known protocol kills the
  /// poll. @returns whether targets were found, which ends the poll
  bool Detect(const std::vector<Tag>& field);
  /// A tag is found when nobody polls any more. It is counted all the same.
  void DropFind() { ++mNextTarget; }

  /// The device has gone. One that stays listed for a while goes on answering, until its owner forgets it.
  void Remove() { mRemoved = true; }

  std::uint32_t Index() const { return mIndex; }
  std::string Name() const { return "nfc" + std::to_string(mIndex); }
  /// What it can, as in its GET_DEVICE answer.
  std::uint32_t Protocols() const;
  bool IsPowered() const { return mPowered; }
  bool IsPolling() const { return mPolling; }
  bool IsRemoved() const { return mRemoved; }
  std::uint32_t OwnerPort() const { return mOwnerPort; }
  std::uint32_t Mask() const { return mMask; }
  /// Another one with each poll.
  std::uint32_t PollId() const { return mPollId; }
  std::uint8_t RfMode() const;
  /// The last find; it outlives the tag, the poll and the power.
  const std::vector<Target>& Targets() const { return mTargets; }
  std::uint32_t TargetsCounted() const { return mNextTarget; }

 private:
  void EndPoll();
  std::vector<Tag> KnownOf(std::vector<Tag> seen) const;

  static constexpr std::size_t kFaults = 6;

  const std::uint32_t mIndex;
  const Stack mStack;
  const bool mAssumeAlready;
  bool mPowered = false;
  bool mPolling = false;
  bool mRemoved = false;
  std::array<bool, kFaults> mFaults{};
  std::uint32_t mOwnerPort = 0;
  std::uint32_t mMask = 0;
  std::uint32_t mPollId = 0;
  std::uint32_t mNextTarget = 0;
  std::vector<Target> mTargets;
};

}  // namespace virtualnfc
