#include "src/servicenotify.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string_view>
#include <utility>

#include "framework/log.h"
#include "statemachines/hsmevent.h"

#ifdef RFID_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace {

/// An event that no state reacts to: the machine takes it and goes on.
struct ProbeTag {
  static constexpr std::array<std::string_view, 1> kEventNames{"WatchdogProbe"};
};
using WatchdogProbe = CHsmEvent<ProbeTag, 0>;

/// What a state means to people. The error states are told with their error instead.
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

#ifdef RFID_SYSTEMD

CServiceNotify::CServiceNotify() : mIsWanted(std::getenv("NOTIFY_SOCKET") != nullptr) {
  uint64_t period = 0;
  if (mIsWanted && sd_watchdog_enabled(0, &period) > 0) {
    mWatchdogPeriod = std::chrono::microseconds(period);
  }
}

void CServiceNotify::Send(const std::string& assignment) const {
  if (!mIsWanted) {
    return;
  }
  if (const int result = sd_notify(0, assignment.c_str()); result < 0) {
    LOG_DEBUG("Could not tell the service manager {}: error {}", assignment, -result);
  }
}

#else

CServiceNotify::CServiceNotify() = default;

void CServiceNotify::Send(const std::string& /*assignment*/) const {}

#endif

void CServiceNotify::EnterState(const std::string& state, const std::string& error) const {
  const bool isError = state == "Error" || state == "FatalError";
  TellState(state, isError ? error : Meaning(state));
  if (state == "Uninitialized") {  // the initial one; the services were started before the machine
    Send("READY=1");
  } else if (state == "Terminating") {
    Send("STOPPING=1");
  }
}

void CServiceNotify::TellReading() const {
  TellState("Enabled", "reading cards");
}

void CServiceNotify::TellFailure(const std::string& error) const {
  TellState("Failed", error);
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
