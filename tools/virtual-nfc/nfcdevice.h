#pragma once

// One NFC device as the kernel keeps it: power, polling and its owner, the last find. Pure state, no clock,
// no sockets.

#include <cstdint>
#include <string>
#include <vector>

#include "tag.h"

namespace virtualnfc {

struct Target {
  std::uint32_t index = 0;
  Tag tag;
};

/// All operations answer as the kernel does: 0 or a positive errno.
class NfcDevice {
 public:
  NfcDevice(std::uint32_t index, std::uint32_t protocols, bool assumeAlready);

  int PowerUp();
  int PowerDown();
  /// @param port netlink port of the socket that asks; it owns the poll from then on
  int StartPoll(std::uint32_t port, std::uint32_t mask);
  int StopPoll(std::uint32_t port);

  /// What StartPoll would answer, without doing it.
  int CheckStartPoll() const;

  /// The owner's socket is gone: the kernel ends its poll.
  void PortClosed(std::uint32_t port);

  /// Kernel and chip disagree whether it is polling: START_POLL answers EBUSY and STOP_POLL EINVAL until the
  /// device is powered down.
  void Disagree();

  /// Another program has activated a target, or let it go.
  void SetTargetActive(bool active) { mTargetActive = active; }

  enum class Detection { Nothing, PollDied, Found };
  /// The chip looks at what lies in its field. A single tag it has no protocol for kills the poll: it goes on
  /// by the kernel's books, and finds nothing any more.
  Detection Detect(const std::vector<Tag>& field);

  /// The device has gone. A powered one stays listed for a while, until its owner forgets it.
  void Remove();

  std::uint32_t Index() const { return mIndex; }
  std::string Name() const { return "nfc" + std::to_string(mIndex); }
  std::uint32_t Protocols() const { return mProtocols; }
  bool IsPowered() const { return mPowered; }
  bool IsPolling() const { return mPolling; }
  bool IsPollDead() const { return mDeaf; }
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

  const std::uint32_t mIndex;
  const std::uint32_t mProtocols;
  const bool mAssumeAlready;
  bool mPowered = false;
  bool mPolling = false;
  bool mDeaf = false;
  bool mDisagrees = false;
  bool mTargetActive = false;
  bool mRemoved = false;
  std::uint32_t mOwnerPort = 0;
  std::uint32_t mMask = 0;
  std::uint32_t mPollId = 0;
  std::uint32_t mNextTarget = 0;
  std::vector<Target> mTargets;
};

}  // namespace virtualnfc
