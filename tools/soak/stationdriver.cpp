#include "tools/soak/stationdriver.h"

#include <fmt/format.h>
#include <linux/nfc.h>

#include <algorithm>
#include <csignal>
#include <stdexcept>

using namespace virtualnfc;
using namespace std::chrono_literals;

namespace {

size_t CountOf(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

}  // namespace

StationDriver::StationDriver(Stack stack)
    : mStation(NewFolder("soak"), {.kernel = {.stack = stack}, .detectionDelay = 50ms}, kOwnSession) {
  mStation.UseProgram("soak-rfidd");
}

void StationDriver::PlugIn() {
  const auto hasReader = [this] {
    const auto devices = mStation.Kernel().GetStatus().devices;
    if (std::any_of(devices.begin(), devices.end(),
                    [](const DeviceStatus& device) { return device.index == 0 && !device.removed; })) {
      return true;
    }
    // A reader that has gone keeps its number for some time.
    return devices.empty() && mStation.Kernel().Plug() == 0;
  };
  Require(Eventually(hasReader, kPatience), "a reader can be plugged in");
}

void StationDriver::Disable() {
  Request(false);
  const auto reader = mStation.Kernel().GetStatus().Device();
  Require(!reader.polling && !reader.powered, "off means off");
}

void StationDriver::StopDaemon(int signal) {
  if (signal == SIGKILL) {
    mStation.LogUntilNow();  // nothing is on its way to the log then
  }
  mStation.Daemon().Signal(signal);
  Require(AwaitTold("tokens ended"), "the daemon's end ends its notifications");
  const auto end = mStation.EndDaemon();
  Require(end == (signal == SIGINT ? "exit 0" : "signal 9"),
          "the daemon ends with the right status, not with " + end);
  const auto log = mStation.Log();
  mLedger.EnterLogged(CountOf(log, "RfidToken notif: '") + CountOf(log, "Sending RfidLearningToken notif: ") -
                      CountOf(log, std::string("RfidToken notif: '") + kFenceUid));
}

StationDriver::Clock::duration StationDriver::Hold(std::chrono::milliseconds hold) {
  const auto end = Clock::now() + hold;
  Clock::duration unseen{};
  for (auto last = Clock::now(); last < end;) {
    const auto found = mStation.Kernel().GetStatus().Events(NFC_EVENT_TARGETS_FOUND);
    mStation.Kernel().WaitFor([&](const Status& s) { return s.Events(NFC_EVENT_TARGETS_FOUND) > found; },
                              std::chrono::ceil<std::chrono::milliseconds>(end - last));
    const auto now = Clock::now();
    unseen = std::max(unseen, now - last);
    last = now;
  }
  return unseen;
}

bool StationDriver::Settle() {
  // The daemon polls again once it has passed a card on.
  const bool isIdle = Await([this] {
    const auto status = mStation.Kernel().GetStatus();
    return IsToldOfError() || (status.Device().polling && !status.commandWaits);
  });
  Require(isIdle, "the reader polls again after a card");
  return !IsToldOfError() && Fence() && !IsToldOfError();
}

bool StationDriver::Fence() {
  // A malformed UID is notified with every configuration, and after everything before it.
  const auto fence = fmt::format("{}{}", kFenceUid, ++mFences);
  if (mStation.Control().Inject(fence) != "Ok") {
    return false;
  }
  return Await([&] { return IsToldOfError() || Told("token " + fence + " ERfidUidInvalid") > 0; });
}

void StationDriver::Collect() {
  for (auto& told : mStation.Control().Take()) {
    if (told != "alive") {
      mTold.push_back(std::move(told));
    }
  }
}

size_t StationDriver::Told(const std::string& what) const {
  return static_cast<size_t>(std::count(mTold.begin(), mTold.end(), what));
}

bool StationDriver::Await(const std::function<bool()>& condition) {
  const auto holds = [&] {
    Collect();
    return condition();
  };
  return Eventually(holds, kPatience);
}

bool StationDriver::AwaitTold(const std::string& what, size_t count) {
  return Await([&] { return Told(what) >= count; });
}

void StationDriver::Request(bool enable) {
  Collect();
  const char* const state = enable ? "Enabled" : "Disabled";
  const auto before = Told(state);
  const auto answer = enable ? mStation.Control().Enable() : mStation.Control().Disable();
  Require(answer == "Ok" && AwaitTold(state, before + 1), std::string("the daemon gets to ") + state);
}

bool StationDriver::Require(bool condition, const std::string& what) {
  if (!condition) {
    mLedger.AddProblem(fmt::format("{}: this does not hold: {}", mAction, what));
  }
  return condition;
}

std::string StationDriver::KeepLogs() {
  mStation.KeepFolder();
  return mStation.Folder();
}
