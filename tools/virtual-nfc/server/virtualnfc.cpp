#include "tools/virtual-nfc/server/virtualnfc.h"

#include <fmt/format.h>
#include <linux/nfc.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>

namespace virtualnfc {

namespace {

std::string OwnAddress() {
  static std::atomic<unsigned> counter{0};
  return fmt::format("@virtual-nfc-{}-{}", ::getpid(), ++counter);
}

}  // namespace

DeviceStatus Status::Device() const {
  const auto found = std::find_if(devices.begin(), devices.end(),
                                  [](const DeviceStatus& device) { return !device.removed; });
  return found == devices.end() ? DeviceStatus{} : *found;
}

VirtualNfc::VirtualNfc(VirtualNfcSettings settings, std::string address)
    : mSettings(std::move(settings)),
      mListener(address.empty() ? OwnAddress() : std::move(address), SOCK_SEQPACKET),
      mWake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mKernel(mSettings.kernel) {
  if (!mWake) {
    throw std::runtime_error("cannot make an event descriptor");
  }
  mKernel.AddDevice(0);
  mThread = std::thread([this] {
    ::pthread_setname_np(::pthread_self(), "virtual-nfc");
    Run();
  });
}

void VirtualNfc::Stop() {
  {
    const std::lock_guard lock(mMutex);
    mStop = true;
    Changed();
  }
  if (mThread.joinable()) {
    mThread.join();
  }
  const std::lock_guard lock(mMutex);
  mConnections.clear();
}

std::uint32_t VirtualNfc::Plug() {
  const std::lock_guard lock(mMutex);
  std::uint32_t number = 0;
  while (mKernel.FindDevice(number) != nullptr) {
    ++number;
  }
  mKernel.AddDevice(number);
  SendEvent(NFC_EVENT_DEVICE_ADDED, number);
  Changed();
  return number;
}

bool VirtualNfc::Unplug(std::uint32_t index) {
  const std::lock_guard lock(mMutex);
  if (!IsDeviceThere(index)) {
    return false;
  }
  RemoveDevice(index);
  Changed();
  return true;
}

void VirtualNfc::PresentTags(std::vector<Tag> tags, std::chrono::milliseconds hold) {
  const std::lock_guard lock(mMutex);
  // The same time for both, so that a late thread does not change the order of find and removal.
  const auto now = Clock::now();
  mField = std::move(tags);
  ++mFieldVersion;
  for (const auto& device : mKernel.Devices()) {
    ScheduleDetection(device->Index(), now);
  }
  if (hold.count() > 0) {
    mTimers.emplace(now + hold, [this, version = mFieldVersion] {
      if (mFieldVersion == version) {
        mField.clear();
      }
    });
  }
  Changed();
}

void VirtualNfc::AddRule(const std::string& text) {
  const std::lock_guard lock(mMutex);
  mRules.push_back(ParseRule(text));
}

std::vector<Rule> VirtualNfc::ListRules() const {
  const std::lock_guard lock(mMutex);
  return mRules;
}

void VirtualNfc::ClearRules() {
  const std::lock_guard lock(mMutex);
  mRules.clear();
}

bool VirtualNfc::SetFault(Fault fault, bool on, std::uint32_t index) {
  const std::lock_guard lock(mMutex);
  if (!IsDeviceThere(index)) {
    return false;
  }
  ChangeFault(index, fault, on);
  Changed();
  return true;
}

void VirtualNfc::ChangeFault(std::uint32_t index, Fault fault, bool on) {
  mKernel.FindDevice(index)->SetFault(fault, on);
  ScheduleDetection(index, Clock::now());
}

void VirtualNfc::OverrunEvents() {
  const std::lock_guard lock(mMutex);
  for (const std::uint64_t id : Listeners()) {
    mConnections.at(id)->MarkOverrun();
  }
}

void VirtualNfc::SendRawEvent(const Bytes& message) {
  const std::lock_guard lock(mMutex);
  Multicast(0, message);
}

Status VirtualNfc::GetStatus() const {
  const std::lock_guard lock(mMutex);
  return MakeStatus();
}

bool VirtualNfc::WaitFor(const std::function<bool(const Status&)>& predicate,
                         std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mMutex);
  return mChanged.wait_for(lock, timeout, [&] { return predicate(MakeStatus()); });
}

Status VirtualNfc::MakeStatus() const {
  Status status = mStatus;
  for (const auto& device : mKernel.Devices()) {
    status.devices.push_back(device->Status());
  }
  for (const Tag& tag : mField) {
    status.tags.push_back(tag.label);
  }
  for (const auto& [id, socket] : mConnections) {
    status.openSockets += socket->IsOpen() ? 1 : 0;
  }
  status.commandWaits = mWaiting.has_value();
  status.queued = mWork.size();
  return status;
}

void VirtualNfc::Changed() {
  (void)::eventfd_write(mWake.Get(), 1);
  mChanged.notify_all();
}

bool VirtualNfc::IsDeviceThere(std::uint32_t index) {
  const NfcDevice* device = mKernel.FindDevice(index);
  return device != nullptr && !device->Status().removed;
}

std::optional<std::uint32_t> VirtualNfc::DeviceOf(const Occurrence& occurrence) {
  for (const auto& device : mKernel.Devices()) {
    if (!device->Status().removed && occurrence.device.value_or(device->Index()) == device->Index()) {
      return device->Index();
    }
  }
  return std::nullopt;
}

void VirtualNfc::RemoveDevice(std::uint32_t index) {
  NfcDevice* device = mKernel.FindDevice(index);
  const bool staysListed = device->Status().powered && mSettings.kernel.stack == Stack::Nci;
  device->Remove();
  SendEvent(NFC_EVENT_DEVICE_REMOVED, index);
  const auto forget = [this, index] { mKernel.EraseDevice(index); };
  if (staysListed) {
    mTimers.emplace(Clock::now() + mSettings.removedListing, forget);
  } else {
    forget();
  }
}

void VirtualNfc::ScheduleDetection(std::uint32_t index, Clock::time_point now) {
  const NfcDevice* polling = mKernel.FindDevice(index);
  if (mField.empty() || !polling->Status().polling) {
    return;
  }
  mTimers.emplace(now + mSettings.detectionDelay, [this, index, poll = polling->PollId()] {
    NfcDevice* device = mKernel.FindDevice(index);
    if (device != nullptr && device->PollId() == poll && device->Detect(mField)) {
      SendEvent(NFC_EVENT_TARGETS_FOUND, index);
    }
  });
}

void VirtualNfc::SendEvent(std::uint8_t event, std::uint32_t device) {
  ++mStatus.events[event];
  Answer answer{{mKernel.Event(event, device)}};
  if (const auto rule = MatchRule(mRules, {Family::Nfc, event, true, device})) {
    for (const auto& change : rule->changes) {
      change(answer);
    }
    if (rule->fault && IsDeviceThere(device)) {
      ChangeFault(device, *rule->fault, true);
    }
  }
  for (const Bytes& message : answer.messages) {
    Multicast(answer.sender, message);
  }
  for (const std::uint64_t id : Listeners()) {
    if (answer.overruns) {
      mConnections.at(id)->MarkOverrun();
    }
    if (answer.closes) {
      CloseConnection(id);
    }
  }
}

std::vector<std::uint64_t> VirtualNfc::Listeners() const {
  std::vector<std::uint64_t> listeners;
  for (const auto& [id, socket] : mConnections) {
    if (socket->listens) {
      listeners.push_back(id);
    }
  }
  return listeners;
}

void VirtualNfc::Multicast(std::uint32_t sender, const Bytes& message) {
  const std::uint32_t group = mSettings.kernel.groupId;
  const std::uint32_t mask = group >= 1 && group <= 32 ? std::uint32_t{1} << (group - 1) : 0;
  for (const std::uint64_t id : Listeners()) {
    mConnections.at(id)->Deliver(sender, mask, message);
    mSettings.watch(Traffic::Event, message);
  }
}

void VirtualNfc::Run() {
  std::unique_lock lock(mMutex);
  while (!mStop) {
    std::vector<pollfd> fds{{mWake.Get(), POLLIN, 0}, {mListener.Fd(), POLLIN, 0}};
    for (const auto& [id, socket] : mConnections) {
      fds.push_back({socket->ControlFd(), POLLIN, 0});
    }
    int timeout = -1;
    if (!mTimers.empty()) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(mTimers.begin()->first - Clock::now());
      timeout = static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
    }
    lock.unlock();
    ::poll(fds.data(), fds.size(), timeout);
    lock.lock();

    eventfd_t ignored = 0;
    (void)::eventfd_read(mWake.Get(), &ignored);
    for (const auto now = Clock::now(); !mTimers.empty() && mTimers.begin()->first <= now;) {
      mTimers.extract(mTimers.begin()).mapped()();
    }
    while (UniqueFd control = mListener.Accept()) {
      mConnections.emplace(mNextConnection++, std::make_unique<NetlinkPort>(std::move(control)));
    }
    ReadConnections();
    WorkOff();
    ServeControl(lock);
    mChanged.notify_all();
  }
}

}  // namespace virtualnfc
