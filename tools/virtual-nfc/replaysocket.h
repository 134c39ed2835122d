#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>

#include "replaychannel.h"

namespace virtualnfc {

/// One socket of a replay: what is asked of the kernel is asked by a thread of its own, since the kernel
/// makes the one who asks wait. All operations are for one thread; the waiting ones have a limit.
class ReplaySocket {
 public:
  using Clock = std::chrono::steady_clock;
  using Operation = std::function<int(NetlinkChannel&)>;

  explicit ReplaySocket(std::shared_ptr<NetlinkChannel> channel);
  /// Closes the socket. A thread that waits in the kernel is told by a signal; if that does not help it is
  /// left behind and the socket stays open.
  ~ReplaySocket();
  ReplaySocket(const ReplaySocket&) = delete;
  ReplaySocket& operator=(const ReplaySocket&) = delete;

  /// Begins an operation; the one before must be over.
  void Start(Operation operation);
  /// @returns what the operation returned; none when it is not over in time
  std::optional<int> WaitForEnd(Clock::time_point deadline);
  /// A signal reaches the thread.
  void Signal();

  /// What the socket has received, in order, left where it is; null when there is no such datagram in time.
  const Datagram* Peek(std::size_t index, Clock::time_point deadline);
  void Drop();

  std::uint32_t Port() const { return mChannel->Port(); }

 private:
  struct Shared;

  static void Run(const std::shared_ptr<Shared>& shared, const std::shared_ptr<NetlinkChannel>& channel);

  std::shared_ptr<NetlinkChannel> mChannel;
  std::shared_ptr<Shared> mShared;
  std::deque<Datagram> mReceived;
};

}  // namespace virtualnfc
