#include "src/servicenotify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string_view>
#include <utility>

#include "framework/log.h"
#include "statemachines/hsmevent.h"

namespace {

/// An event that no state reacts to: the machine takes it and goes on.
struct ProbeTag {
  static constexpr std::array<std::string_view, 1> kEventNames{"WatchdogProbe"};
};
using WatchdogProbe = CHsmEvent<ProbeTag, 0>;

/// What a state means to people. The error states show their error instead.
const char* Meaning(const std::string& state) {
  static const std::map<std::string, const char*> kMeanings{
      {"Uninitialized", "waiting for the supervisor"},
      {"Initializing", "starting"},
      {"Disabled", "waiting for the supervisor to enable the reader"},
      {"Enabling", "opening the reader"},
      {"Enabled", "switching the reader on"},
      {"Disabling", "switching the reader off"},
      {"Recovering", "reopening the reader"},
      {"Terminating", "switching the reader off"},
  };
  const auto found = kMeanings.find(state);
  return found == kMeanings.end() ? "" : found->second;
}

}  // namespace

CServiceNotify::CServiceNotify() {
  if (const char* const socket = std::getenv("NOTIFY_SOCKET")) {
    mSocket = socket;
  }
  const char* const period = std::getenv("WATCHDOG_USEC");
  const char* const watched = std::getenv("WATCHDOG_PID");  // may name another process
  if (IsWanted() && period != nullptr && (watched == nullptr || std::to_string(getpid()) == watched)) {
    mWatchdogPeriod = std::chrono::microseconds(std::strtoull(period, nullptr, 10));
  }
}

void CServiceNotify::Send(const std::string& assignment) const {
  sockaddr_un address{};
  if (!IsWanted() || mSocket.size() >= sizeof(address.sun_path)) {
    return;
  }
  address.sun_family = AF_UNIX;
  mSocket.copy(address.sun_path, mSocket.size());
  if (mSocket.front() == '@') {
    address.sun_path[0] = '\0';  // an abstract name
  }
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + mSocket.size());
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0 || sendto(descriptor, assignment.data(), assignment.size(), MSG_NOSIGNAL,
                               reinterpret_cast<const sockaddr*>(&address), size) < 0) {
    LOG_DEBUG("Could not tell the service manager {}: {}", assignment, std::strerror(errno));
  }
  if (descriptor >= 0) {
    close(descriptor);
  }
}

void CServiceNotify::EnterState(const std::string& state, const std::string& error) const {
  if (state == "_Final_Statemachine") {
    return;  // the reader is not off yet
  }
  const bool isError = state == "Error" || state == "FatalError";
  TellState(state, isError ? error : Meaning(state));
  if (state == "Uninitialized") {  // the initial one; the services were started before the machine
    Send("READY=1");
  } else if (state == "Terminating") {
    Send("STOPPING=1");
  }
}

void CServiceNotify::TellState(const std::string& state, const std::string& detail) const {
  auto status = "STATUS=" + state + (detail.empty() ? "" : ": " + detail);
  std::replace(status.begin(), status.end(), '\n', ' ');  // a new line would begin another assignment
  Send(status);
}

CWatchdogFeeder::CWatchdogFeeder(std::shared_ptr<IHsmInterface> machine,
                                 std::function<bool()> hasMonitorMoved, std::function<void()> feed)
    : mMachine(std::move(machine)), mHasMonitorMoved(std::move(hasMonitorMoved)), mFeed(std::move(feed)) {}

void CWatchdogFeeder::Look() {
  mMachineMoved = HasMachineMoved() || mMachineMoved;
  mMonitorMoved = mHasMonitorMoved() || mMonitorMoved;
  if (mMachineMoved && mMonitorMoved) {
    mMachineMoved = mMonitorMoved = false;
    mFeed();
  }
}

bool CWatchdogFeeder::HasMachineMoved() {
  if (mProbe.valid() && mProbe.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
    return false;
  }
  const bool isAnswered = mProbe.valid();
  try {
    if (isAnswered) {
      mProbe.get();
    }
  } catch (const std::future_error&) {
    return false;  // the machine has ended: if closing the reader hangs, nothing may feed the watchdog
  }
  const auto probe = std::make_shared<WatchdogProbe>();
  mProbe = probe->mHandled.get_future();
  mMachine->PostEvent(probe);
  return isAnswered;
}
