#pragma once

// A simulated kernel with NFC: the generic-netlink controller, the family "nfc", its devices and the tags in
// front of them. Programs reach it because the interposer turns their netlink sockets into connections to
// this server.

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tools/virtual-nfc/kernel/nfckernel.h"
#include "tools/virtual-nfc/kernel/rules.h"
#include "tools/virtual-nfc/kernel/tag.h"
#include "tools/virtual-nfc/server/netlinkport.h"
#include "tools/virtual-nfc/server/unixsocket.h"

namespace virtualnfc {

/// What a datagram between a program and the kernel is.
enum class Traffic { Request, Answer, Event };

struct VirtualNfcSettings {
  KernelSettings kernel = {};
  /// From START_POLL, or from presenting a tag, until the chip has found the tag.
  std::chrono::milliseconds detectionDelay{20};
  /// From the close of the socket that owns the poll until the poll ends; 0: at once.
  std::chrono::milliseconds ownerReleaseDelay{5};
  /// How long a powered Nci device stays listed after it was unplugged. A Digital device disappears at once.
  std::chrono::milliseconds removedListing{5000};
  /// How long a STOP_POLL takes when the chip finds a tag at that moment.
  std::chrono::milliseconds crossingWait{30000};
  /// For how long after such a STOP_POLL a new command to the device hangs for ever.
  std::chrono::milliseconds crossingPause{250};
  /// Sees each datagram, on any thread, with the server's lock held: it must return at once and must not call
  /// the server.
  std::function<void(Traffic, ByteView)> watch = [](Traffic, ByteView) {};
};

struct Status {
  std::vector<DeviceStatus> devices;
  /// Labels of the tags in the field.
  std::vector<std::string> tags;
  std::size_t openSockets = 0;
  /// Commands of the nfc family received so far, by number, including one that still waits.
  std::array<std::uint32_t, 256> commands{};
  /// How many of them a signal has ended before the chip had answered.
  std::uint32_t interrupted = 0;
  /// Events of the nfc family sent so far, by number, with or without listeners.
  std::array<std::uint32_t, 256> events{};
  /// A command waits for its chip.
  bool commandWaits = false;
  /// Messages that wait behind that command.
  std::size_t queued = 0;
  /// A command came too soon after a STOP_POLL that crossed a find. The kernel answers no command any more.
  bool hung = false;

  /// The first device that is plugged in; without one, a status without power and poll.
  DeviceStatus Device() const;
  std::uint32_t Commands() const { return std::accumulate(commands.begin(), commands.end(), 0U); }
  std::uint32_t Commands(std::uint8_t command) const { return commands[command]; }
  std::uint32_t Events(std::uint8_t event) const { return events[event]; }
};

/// Serves from construction to destruction, on its own thread. Device 0 is plugged in at the start. Any
/// thread may call any operation at any time, except from a predicate given to WaitFor. Only WaitFor blocks.
class VirtualNfc {
 public:
  /// @param address where the interposer connects: a path, "@name" for an abstract name, or empty for a new
  /// abstract name
  /// @throws std::runtime_error when it cannot listen there
  explicit VirtualNfc(VirtualNfcSettings settings = {}, std::string address = {});
  ~VirtualNfc() { Stop(); }
  VirtualNfc(const VirtualNfc&) = delete;
  VirtualNfc& operator=(const VirtualNfc&) = delete;

  /// Closes all connections for good. Programs that wait for an answer get an error. One caller at a time.
  void Stop();

  const std::string& Address() const { return mListener.Address(); }
  const VirtualNfcSettings& Settings() const { return mSettings; }

  /// Plugs in a device with the lowest free number. @returns the number
  std::uint32_t Plug();
  /// @returns false when there is no such device
  bool Unplug(std::uint32_t index = 0);

  /// Puts these tags in front of the readers and takes all others away. @param hold how long they stay; 0:
  /// until the next change
  void PresentTags(std::vector<Tag> tags, std::chrono::milliseconds hold = {});
  void PresentTag(Tag tag) { PresentTags({std::move(tag)}); }
  void PresentTagFor(Tag tag, std::chrono::milliseconds hold) { PresentTags({std::move(tag)}, hold); }
  void RemoveTags() { PresentTags({}); }

  /// Rules as described in rules.h. @throws std::invalid_argument
  void AddRule(const std::string& text);
  std::vector<Rule> ListRules() const;
  void ClearRules();

  /// Starts or ends a fault of the device. @returns false when there is no such device
  bool SetFault(Fault fault, bool on = true, std::uint32_t index = 0);

  /// Ends the polls of closed sockets now instead of after ownerReleaseDelay.
  void EndPollsOfClosedSockets();
  /// Makes the next receive call of every listener fail with ENOBUFS, as after lost events.
  void OverrunEvents();
  /// Sends these bytes to all listeners, as if the kernel had.
  void SendRawEvent(const Bytes& message);

  Status GetStatus() const;
  /// Waits until the predicate holds; it is called with the lock held, after each change.
  /// @returns false on timeout
  bool WaitFor(const std::function<bool(const Status&)>& predicate,
               std::chrono::milliseconds timeout = std::chrono::seconds(60)) const;

 private:
  using Clock = std::chrono::steady_clock;

  /// A message on its way to the kernel. The reply to the socket's Send comes with its last message.
  struct Work {
    std::uint64_t connection = 0;
    Bytes message;
    bool isLast = false;
  };
  /// A command that is being carried out. All others wait behind it.
  struct Waiting {
    Work work;
    Request request;
    Rule rule;
    /// A STOP_POLL that the find of a tag delays.
    bool crosses = false;
    /// The device that the command named, or the first one when the command began.
    std::optional<std::uint32_t> device;
    std::uint64_t id = 0;
  };

  void Run();
  void ReadConnections();
  void CloseConnection(std::uint64_t id);
  std::vector<std::uint64_t> Listeners() const;
  void HandleRecord(std::uint64_t id, const Bytes& record);
  /// Takes a datagram that the program has sent to the kernel.
  void Enqueue(std::uint64_t id, ByteView datagram);
  int Bind(std::uint64_t id, std::uint32_t wanted);
  int Join(NetlinkPort& socket, std::uint32_t group) const;
  bool IsPortTaken(std::uint32_t port) const;

  /// Carries out the lines from virtual-nfc. Releases the lock meanwhile.
  void ServeControl(std::unique_lock<std::mutex>& lock);
  void WorkOff();
  void Begin(Work work);
  /// A signal ends the wait of this connection's command for the chip.
  void Interrupt(std::uint64_t id);
  void FinishWaiting(bool interrupted);

  void SendEvent(std::uint8_t event, std::uint32_t device);
  void Multicast(std::uint32_t sender, const Bytes& message);
  void RemoveDevice(std::uint32_t index);
  void ScheduleDetection(std::uint32_t index, Clock::time_point now);
  void ChangeFault(std::uint32_t index, Fault fault, bool on);
  bool IsDeviceThere(std::uint32_t index);
  std::optional<std::uint32_t> DeviceOf(const Occurrence& occurrence);
  Status MakeStatus() const;
  void ReleasePoll(std::uint32_t port);
  /// After a change by a caller's thread: wakes the server and the callers of WaitFor.
  void Changed();

  const VirtualNfcSettings mSettings;
  UnixListener mListener;
  UniqueFd mWake;

  mutable std::mutex mMutex;
  mutable std::condition_variable mChanged;
  // Everything below is guarded by mMutex.
  bool mStop = false;
  /// Actions to run later on the server's thread; an action may add others.
  std::multimap<Clock::time_point, std::function<void()>> mTimers;
  NfcKernel mKernel;
  std::vector<Rule> mRules;
  std::vector<Tag> mField;
  /// Counts the changes of the field, so that the end of a hold removes only its own tag.
  std::uint64_t mFieldVersion = 0;
  std::map<std::uint64_t, std::unique_ptr<NetlinkPort>> mConnections;
  std::uint64_t mNextConnection = 1;
  /// Closed sockets whose polls end after ownerReleaseDelay.
  std::vector<std::uint32_t> mClosedPorts;
  std::deque<Work> mWork;
  /// Lines from virtual-nfc, each with its connection.
  std::vector<std::pair<std::uint64_t, std::string>> mControlLines;
  std::optional<Waiting> mWaiting;
  std::uint64_t mNextWaiting = 1;
  /// Until then a find waits for the device's lock. A command that takes the lock first waits for ever.
  std::optional<Clock::time_point> mFindWaitsUntil;
  /// The counts, and whether mWaiting hangs.
  Status mStatus;

  std::thread mThread;
};

}  // namespace virtualnfc
