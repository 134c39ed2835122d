#pragma once

// A kernel with NFC, simulated: the generic-netlink controller, the family "nfc", its devices and the tags in
// front of them, for programs whose netlink sockets the interposer has turned into connections to this
// server.

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tools/virtual-nfc/kernel/nfckernel.h"
#include "tools/virtual-nfc/kernel/rules.h"
#include "tools/virtual-nfc/kernel/tag.h"
#include "tools/virtual-nfc/server/netlinkobserver.h"
#include "tools/virtual-nfc/server/netlinkport.h"
#include "tools/virtual-nfc/server/timers.h"
#include "tools/virtual-nfc/server/unixsocket.h"

namespace virtualnfc {

struct VirtualNfcSettings {
  KernelSettings kernel;
  /// Devices that are there from the start, numbered from 0.
  std::uint32_t devices = 1;
  /// From START_POLL, or from the tag's coming, until the chip has found it.
  std::chrono::milliseconds detectionDelay{20};
  /// From the close of the socket that owns the poll until the poll ends; 0 ends it with the close.
  std::chrono::milliseconds ownerReleaseDelay{5};
  /// How long a powered device stays listed after it has gone; with Digital none does.
  std::chrono::milliseconds removedListing{5000};
  /// How long the number of a device stays taken after that.
  std::chrono::milliseconds numberRelease{20};
  /// How long a STOP_POLL waits that meets a find, and how long nothing may be sent to the device after it.
  std::chrono::milliseconds crossingWait{30000};
  std::chrono::milliseconds crossingPause{250};
};

struct DeviceStatus {
  std::uint32_t index = 0;
  std::string name;
  bool powered = false;
  bool polling = false;
  /// Gone, and still listed.
  bool removed = false;
  std::uint32_t ownerPort = 0;
  std::uint32_t mask = 0;
  /// Targets found since the device came.
  std::uint32_t targetsFound = 0;
  std::vector<Fault> faults;

  bool Has(Fault fault) const { return std::find(faults.begin(), faults.end(), fault) != faults.end(); }
};

struct Status {
  std::vector<DeviceStatus> devices;
  /// Labels of the tags in the field.
  std::vector<std::string> tags;
  std::size_t openSockets = 0;
  /// Sockets that have joined the events group.
  std::size_t listeners = 0;
  /// Commands of the nfc family received so far, by number; a command that waits is counted already.
  std::array<std::uint32_t, 256> commands{};
  /// Events of the nfc family sent so far, by number, whether or not anybody listened.
  std::array<std::uint32_t, 256> events{};
  /// A command waits for its chip.
  bool commandWaits = false;
  /// Messages whose senders wait behind it.
  std::size_t queued = 0;
  /// A command came too early after a STOP_POLL that met a find: no command is answered any more.
  bool hung = false;

  /// The device that was there first and is there still; one that is nowhere (no power, no poll) when none
  /// is.
  DeviceStatus Device() const;
  std::uint32_t Commands(std::uint8_t command) const { return commands[command]; }
  std::uint32_t Events(std::uint8_t event) const { return events[event]; }
};

/// One command of the nfc family and what became of it.
struct CommandRecord {
  std::uint8_t command = 0;
  std::uint32_t port = 0;
  /// errno of the answer, 0 for success
  int error = 0;
};

/// Serves from construction to destruction, on a thread of its own. All operations may be called from any
/// thread at any time but from within a predicate given to WaitFor; all but WaitFor return at once.
class VirtualNfc {
 public:
  /// @param address where the interposer connects to: a path, "@name" for an abstract name, or empty for an
  /// abstract name of its own
  /// @throws std::runtime_error when it cannot listen there
  explicit VirtualNfc(VirtualNfcSettings settings = {}, std::string address = {});
  ~VirtualNfc() { Stop(); }
  VirtualNfc(const VirtualNfc&) = delete;
  VirtualNfc& operator=(const VirtualNfc&) = delete;

  /// Ends all connections, for good. Programs that wait for an answer get an error. For one caller at a time.
  void Stop();

  const std::string& Address() const { return mListener.Address(); }
  const VirtualNfcSettings& Settings() const { return mSettings; }

  /// A new device comes, with the lowest free number, or the given one.
  /// @throws std::invalid_argument when the given number is taken
  std::uint32_t Plug(std::optional<std::uint32_t> index = std::nullopt);
  /// The device goes.
  /// @returns false when there is no such device
  bool Unplug(std::uint32_t index = 0);

  /// Puts these tags in front of the readers, in place of those that were there.
  void PresentTags(std::vector<Tag> tags);
  void PresentTag(Tag tag);
  /// The tag goes again by itself after that time.
  void PresentTagFor(Tag tag, std::chrono::milliseconds hold);
  void RemoveTags() { PresentTags({}); }

  /// Rules as described in rules.h. @throws std::invalid_argument @returns the rule's id
  std::uint32_t AddRule(std::string_view text);
  std::vector<RuleStatus> ListRules() const;
  void ClearRules();

  /// The device has this fault from now on, or no more. @returns false when there is no such device
  bool SetFault(Fault fault, bool on = true, std::uint32_t index = 0);
  /// A transfer to the reader fails, once: its poll is dead.
  bool KillPoll(std::uint32_t index = 0) { return SetFault(Fault::PollDead, true, index); }

  /// Ends now what the kernel ends some time after a socket was closed.
  void EndPollsOfClosedSockets();
  /// All listeners have lost events: their next receive call fails with ENOBUFS.
  void OverrunEvents();
  /// Sends these bytes to all listeners, as if the kernel had.
  void SendRawEvent(const Bytes& message);

  /// From now on until it is removed it is told of everything, first of what is there already: the sockets,
  /// their groups, the rules, the tags.
  void AddObserver(NetlinkObserver& observer);
  /// It gets no call any more when this returns.
  void RemoveObserver(NetlinkObserver& observer);

  Status GetStatus() const;
  /// The commands of the nfc family since the start, the latest thousand.
  std::vector<CommandRecord> History() const;
  /// @param predicate called with the lock held, at each change @returns false when the time is over before
  /// it holds
  bool WaitFor(const std::function<bool(const Status&)>& predicate,
               std::chrono::milliseconds timeout = std::chrono::seconds(60)) const;

 private:
  /// A message on its way to the kernel. The socket's Send is answered with the last of its messages.
  struct Work {
    std::uint64_t connection = 0;
    Bytes message;
    bool isLast = false;
  };
  /// The command that waits for its chip; all others wait behind it.
  struct Waiting {
    Work work;
    Request request;
    Rule rule;
    /// A find holds it up.
    bool crosses = false;
    /// The device that was there when it began: the one it names, or the first.
    std::optional<std::uint32_t> device;
    std::uint64_t id = 0;
  };

  void Run();
  void AcceptConnections();
  void ReadConnections(const std::vector<std::uint64_t>& readable);
  void CloseEndedConnections();
  void CloseConnection(std::uint64_t id);
  void MarkListenersOverrun();
  void BreakConnection(std::uint64_t id);
  void HandleRecord(std::uint64_t id, const Bytes& record);
  int Bind(std::uint64_t id, std::uint32_t wanted, std::uint32_t groups);
  int Join(std::uint64_t id, std::uint32_t group);
  bool IsPortTaken(std::uint32_t port) const;

  void WorkOff();
  void Begin(Work work);
  void FinishWaiting(bool interrupted);

  void SendEvent(Bytes message);
  void Deliver(std::uint64_t id, std::uint32_t sender, std::uint32_t groups, const Bytes& datagram);
  void Multicast(std::uint32_t sender, const Bytes& message);
  void RemoveDevice(std::uint32_t index);
  void ScheduleDetection(std::uint32_t index, Timers::Clock::time_point now);
  void PutIntoField(std::vector<Tag> tags, Timers::Clock::time_point now);
  void ChangeFault(std::uint32_t index, Fault fault, bool on);
  bool IsDeviceThere(std::uint32_t index);
  std::optional<std::uint32_t> DeviceOf(const Occurrence& occurrence);
  std::uint32_t LowestFreeNumber() const;
  Status MakeStatus() const;
  void ChangeField(std::vector<Tag> tags);
  std::string FieldWords() const;
  void TellOfSocket(std::uint64_t id, SocketChange change, std::uint32_t number = 0, int error = 0);
  void TellOfReader(std::string_view words);
  void Wake();
  /// Every change by a caller's thread: the server looks again and waiting predicates are asked again.
  void Changed();

  const VirtualNfcSettings mSettings;
  UnixListener mListener;
  UniqueFd mWake;

  mutable std::mutex mMutex;
  mutable std::condition_variable mChanged;
  // Everything below is guarded by mMutex.
  bool mStop = false;
  Timers mTimers;
  NfcKernel mKernel;
  RuleSet mRules;
  std::vector<Tag> mField;
  /// Counts the changes of the field, so that a hold that is over removes only its own tag.
  std::uint64_t mFieldVersion = 0;
  /// Numbers of devices that have gone, not free yet.
  std::vector<std::uint32_t> mTakenNumbers;
  std::map<std::uint64_t, std::unique_ptr<NetlinkPort>> mConnections;
  std::uint64_t mNextConnection = 1;
  /// Sockets that were closed and whose polls may go on for ownerReleaseDelay.
  std::vector<std::uint32_t> mClosedPorts;
  std::deque<Work> mWork;
  std::optional<Waiting> mWaiting;
  std::uint64_t mNextWaiting = 1;
  /// Until then a find waits for the device's lock, and a command that takes it first waits for ever.
  std::optional<Timers::Clock::time_point> mFindWaitsUntil;
  /// mWaiting is never finished.
  bool mHung = false;
  std::deque<CommandRecord> mHistory;
  std::array<std::uint32_t, 256> mCommands{};
  std::array<std::uint32_t, 256> mEvents{};
  std::vector<NetlinkObserver*> mObservers;

  std::thread mThread;
};

}  // namespace virtualnfc
