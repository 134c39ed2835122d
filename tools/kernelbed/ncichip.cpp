#include "tools/kernelbed/ncichip.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace kernelbed {

namespace {

constexpr auto kDevice = "/dev/virtual_nci";
/// From the start of discovery, or from "put", until the tag is reported.
constexpr std::chrono::milliseconds kTimeToFind(20);

enum Packet : uint8_t { Command = 0x20, Response = 0x40, Notification = 0x60 };
enum Group : uint8_t { Core = 0, Rf = 1 };
enum Status : uint8_t {
  Ok = 0x00,
  SemanticError = 0x06,
  UnknownCommand = 0x08,
  DiscoveryAlreadyStarted = 0xa0
};
enum Deactivation : uint8_t { ToIdle = 0, ToDiscovery = 3 };

/// The names that the command "fail" uses.
std::string NameOf(uint8_t group, uint8_t operation) {
  static const std::map<int, std::string> kNames{{0x000, "reset"},     {0x001, "init"},
                                                 {0x002, "setconfig"}, {0x100, "map"},
                                                 {0x103, "discover"},  {0x106, "deactivate"}};
  const auto name = kNames.find(group << 8 | operation);
  return name == kNames.end() ? "other" : name->second;
}

}  // namespace

const char* const NciChip::kWords = R"(Commands of this reader:
  cross TAG             report TAG just before the answer to the next deactivate command during discovery
  fail COMMAND HOW [N]  the next N (1) of these commands get HOW: a status byte in hexadecimal, "silent" (no answer),
                        or "late MS". COMMAND: reset, init, setconfig, map, discover, deactivate, or deactntf (the
                        notification after deactivate)
  reset                 the chip resets itself and reports that
  ax UID [protocol=80]  another kind of tag: NFC-A with a protocol number of the chip maker, as many chips report for
                        MIFARE Classic

State: off (unplugged), ready, idle, discovery, select or active.
)";

NciChip::NciChip(FILE* log) : Reader(log) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);  // without SA_RESTART, so that it ends a read
  mReporter = std::thread(&NciChip::ReportTags, this);
}

NciChip::~NciChip() {
  NciChip::Unplug();
  {
    const std::lock_guard lock(mMutex);
    mQuit = true;
  }
  mChanged.notify_all();
  mReporter.join();
}

void NciChip::Plug() {
  const int device = open(kDevice, O_RDWR | O_CLOEXEC);
  if (device < 0) {
    throw std::system_error(errno, std::generic_category(), kDevice);
  }
  {
    const std::lock_guard lock(mMutex);
    mDevice.Reset(device);
    SetState("ready");
  }
  mStopReading = mHasStoppedReading = false;
  mReader = std::thread(&NciChip::ReadCommands, this, device);
}

void NciChip::Unplug() {
  if (!mReader.joinable()) {
    return;
  }
  mStopReading = true;
  while (!mHasStoppedReading) {  // a blocked read keeps the device open
    pthread_kill(mReader.native_handle(), SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  mReader.join();
  virtualnfc::UniqueFd device;
  {
    const std::lock_guard lock(mMutex);
    std::swap(device, mDevice);
    SetState("off");
  }
  // Closing removes the device. If it is powered, the kernel first waits 5 s for a last answer.
}

void NciChip::PutTag(const TagWords& tag) {
  mField.emplace_back(tag);
  LookForTags();
}

bool NciChip::OwnCommand(const std::string& word, std::istream& words) {
  if (word == "cross") {
    mCrossing = NciTag(TagWords(words));
  } else if (word == "fail") {
    AddFailure(words);
  } else if (word == "reset") {
    Notify(Group::Core, 0, {0x00, 0x01, 0x20, 0x04, 4, 1, 2, 3, 4});
    SetState("ready");
  } else {
    return false;
  }
  return true;
}

void NciChip::AddFailure(std::istream& words) {
  const auto command = NextWord(words);
  const auto how = NextWord(words);
  Failure failure{Failure::How::Refuse, 0, 1};
  if (how == "silent") {
    failure.how = Failure::How::BeSilent;
  } else if (how == "late") {
    failure.how = Failure::How::BeLate;
    failure.argument = NextNumber(words, 0);
  } else {
    failure.argument = virtualnfc::ParseHex(how).at(0);
  }
  failure.count = NextNumber(words, 1);
  mFailures.insert_or_assign(command, failure);
  mCounts["failing"] = static_cast<int>(mFailures.size());
}

void NciChip::SetState(const std::string& state) {
  if (state != mState) {
    Log(mState + " -> " + state);
  }
  mState = state;
  mNextReport.reset();
  LookForTags();
}

void NciChip::LookForTags() {
  if (mState == "discovery") {
    mNextReport = Clock::now() + kTimeToFind;
    mChanged.notify_all();
  }
}

void NciChip::Send(uint8_t type, uint8_t group, uint8_t operation, const Bytes& payload) {
  Bytes packet{static_cast<uint8_t>(type | group), operation, static_cast<uint8_t>(payload.size())};
  Append(packet, payload);
  Log("chip: " + ToHex(packet));
  if (write(mDevice.Get(), packet.data(), packet.size()) < 0) {
    throw std::system_error(errno, std::generic_category(), "cannot write to the kernel");
  }
}

void NciChip::Respond(const Request& request, const Bytes& more) {
  Bytes payload{request.status};
  Append(payload, more);
  Send(Packet::Response, request.group, request.operation, payload);
}

void NciChip::Notify(uint8_t group, uint8_t operation, const Bytes& payload) {
  Send(Packet::Notification, group, operation, payload);
}

void NciChip::ReadCommands(int device) {
  std::array<uint8_t, 300> buffer;
  while (!mStopReading) {
    const auto length = read(device, buffer.data(), buffer.size());
    if (length < 3) {
      continue;  // Unplug has interrupted the read
    }
    const Bytes packet(buffer.begin(), buffer.begin() + length);
    Log("host: " + ToHex(packet));
    std::unique_lock lock(mMutex);
    try {
      OnCommand(packet, lock);
    } catch (const std::exception& e) {
      Log(e.what());
    }
  }
  mHasStoppedReading = true;
}

bool NciChip::IsAnswered(const std::string& command, uint8_t& status, std::unique_lock<std::mutex>& lock) {
  status = Status::Ok;
  const auto found = mFailures.find(command);
  if (found == mFailures.end()) {
    return true;
  }
  const auto failure = found->second;
  if (--found->second.count <= 0) {
    mFailures.erase(found);
    mCounts["failing"] = static_cast<int>(mFailures.size());
  }
  switch (failure.how) {
    case Failure::How::Refuse:
      status = static_cast<uint8_t>(failure.argument);
      break;
    case Failure::How::BeSilent:
      Log("silent to " + command);
      return false;
    case Failure::How::BeLate:
      lock.unlock();
      std::this_thread::sleep_for(std::chrono::milliseconds(failure.argument));
      lock.lock();
      break;
  }
  return true;
}

void NciChip::OnCommand(const Bytes& packet, std::unique_lock<std::mutex>& lock) {
  const auto group = static_cast<uint8_t>(packet[0] & 0x0f);
  const auto operation = static_cast<uint8_t>(packet[1] & 0x3f);
  Request request{group, operation, Bytes(packet.begin() + 3, packet.end()), Status::Ok};
  if ((packet[0] & 0xe0) != Packet::Command) {
    return;  // data for a tag
  }
  const auto name = NameOf(group, operation);
  ++mCounts[name];
  if (!IsAnswered(name, request.status, lock)) {
    return;
  }
  if (name == "reset") {
    Reset(request);
  } else if (name == "init") {
    if (request.status == Status::Ok) {
      // Features, limits and three interfaces: frame, ISO-DEP and NFC-DEP.
      Respond(request, {0, 0, 0, 0, 1, 0, 0, 255, 255, 1, 0, 1, 3, 1, 0, 2, 0, 3, 0});
    } else {
      Respond(request);
    }
  } else if (name == "setconfig") {
    Respond(request, {0});
  } else if (name == "map") {
    Respond(request);
    if (request.status == Status::Ok) {
      SetState("idle");
    }
  } else if (name == "discover") {
    Discover(request);
  } else if (name == "deactivate") {
    Deactivate(request, lock);
  } else {
    request.status = Status::UnknownCommand;
    Respond(request, {0});
  }
}

void NciChip::Reset(const Request& request) {
  if (request.status != Status::Ok) {
    Respond(request, {0, 0});
    return;
  }
  Respond(request);
  Notify(Group::Core, 0, {0x02, 0x01, 0x20, 0x04, 4, 1, 2, 3, 4});
  SetState("ready");
}

void NciChip::Discover(Request& request) {
  if (request.status == Status::Ok && mState != "idle") {
    request.status = mState == "discovery" ? Status::DiscoveryAlreadyStarted : Status::SemanticError;
  }
  mTechnologies.clear();
  for (size_t i = 1; i + 1 < request.arguments.size(); i += 2) {
    mTechnologies.push_back(request.arguments[i]);
  }
  Respond(request);
  if (request.status == Status::Ok) {
    SetState("discovery");
  }
}

void NciChip::Deactivate(const Request& request, std::unique_lock<std::mutex>& lock) {
  if (mCrossing && mState == "discovery") {
    SetState("active");
    SendActivated(*mCrossing);
    mCrossing.reset();
  }
  const bool wasActive = mState == "active";
  Respond(request);
  if (request.status != Status::Ok) {
    return;
  }
  const uint8_t type = request.arguments.empty() ? uint8_t{Deactivation::ToIdle} : request.arguments[0];
  SetState(type == Deactivation::ToIdle        ? "idle"
           : type == Deactivation::ToDiscovery ? "discovery"
                                               : "select");
  uint8_t ignored = 0;
  if (wasActive && IsAnswered("deactntf", ignored, lock)) {
    Notify(Group::Rf, 6, {type, 0});
  }
}

void NciChip::ReportTags() {
  std::unique_lock lock(mMutex);
  while (!mQuit) {
    if (!mNextReport) {
      mChanged.wait(lock);
    } else if (Clock::now() < *mNextReport) {
      mChanged.wait_until(lock, *mNextReport);
    } else {
      mNextReport.reset();
      try {
        Report();
      } catch (const std::exception& e) {
        Log(e.what());
      }
    }
  }
}

/// Activates a single tag. Reports several as a list, which is enough for the kernel.
void NciChip::Report() {
  std::vector<NciTag> found;
  std::copy_if(mField.begin(), mField.end(), std::back_inserter(found), [this](const NciTag& tag) {
    return std::find(mTechnologies.begin(), mTechnologies.end(), tag.technology) != mTechnologies.end();
  });
  if (found.size() == 1) {
    SetState("active");
    SendActivated(found.front());
  } else if (!found.empty()) {
    SetState("select");
    for (size_t i = 0; i < found.size(); ++i) {
      const auto& tag = found[i];
      Bytes payload{static_cast<uint8_t>(i + 1), tag.protocol, tag.technology,
                    static_cast<uint8_t>(tag.parameters.size())};
      Append(payload, tag.parameters);
      payload.push_back(i + 1 < found.size() ? 2 : 0);  // 2: more follow, 0: the last
      Notify(Group::Rf, 3, payload);
    }
  }
}

void NciChip::SendActivated(const NciTag& tag) {
  constexpr uint8_t kId = 1;
  Bytes payload{
      kId, tag.interface, tag.protocol, tag.technology, 255, 1, static_cast<uint8_t>(tag.parameters.size())};
  Append(payload, tag.parameters);
  Append(payload, {tag.technology, 0, 0, static_cast<uint8_t>(tag.activation.size())});
  Append(payload, tag.activation);
  Notify(Group::Rf, 5, payload);
}

}  // namespace kernelbed
