#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/harness/station.h"

/// Operates a station with one reader, and collects what its supervisor is told. Throws std::runtime_error
/// when the station does not do what it should. One thread. Every wait has a timeout.
class StationDriver {
 public:
  explicit StationDriver(virtualnfc::Stack stack)
      : mStation(NewFolder("soak"),
                 {.kernel = {.stack = stack}, .detectionDelay = std::chrono::milliseconds(50)}, kOwnSession) {
    mStation.UseProgram("soak-rfidd");
  }

  /// Keeps the daemon's logs. Returns their folder.
  std::string KeepLogs() {
    mStation.KeepFolder();
    return mStation.Folder();
  }

  std::string Resources() const {
    const auto& daemon = mStation.Daemon();
    return fmt::format("memory {} KiB, {} descriptors, {} threads", daemon.Memory("VmRSS"),
                       daemon.OpenDescriptors(), daemon.Threads());
  }

  void StopDaemon(int signal) {
    mStation.Daemon().Signal(signal);
    Require(Await([this] { return Told("tokens ended") > 0; }), "the daemon's end ends its notifications");
    const auto end = mStation.EndDaemon();
    Require(end == (signal == SIGINT ? "exit 0" : "signal 9"), "the daemon ended in order, not with " + end);
  }

 protected:
  static constexpr std::chrono::seconds kPatience{40};

  void Require(bool condition, const std::string& what) const {
    if (!condition) {
      throw std::runtime_error(fmt::format("{}: this does not hold: {}", mAction, what));
    }
  }

  /// Plugs a reader in unless there is one.
  void PlugIn() {
    const auto hasReader = [this] {
      const auto devices = mKernel.GetStatus().devices;
      // A reader that has gone keeps its number for some time.
      return devices.empty() ? mKernel.Plug() == 0
                             : std::any_of(devices.begin(), devices.end(),
                                           [](const auto& device) { return !device.removed; });
    };
    Require(Eventually(hasReader, kPatience), "a reader can be plugged in");
  }

  void Disable() {
    Request(false);
    const auto reader = mKernel.GetStatus().Device();
    Require(!reader.polling && !reader.powered, "off means off");
  }
  /// Asks the daemon to enable or disable and waits for the state.
  void Request(bool enable) {
    const std::string state = enable ? "Enabled" : "Disabled";
    Collect();
    const auto before = Told(state);
    Require((enable ? mStation.Control().Enable() : mStation.Control().Disable()) == "Ok" &&
                Await([&] { return Told(state) > before; }),
            "the daemon gets to " + state);
  }

  /// Waits until the reader polls again and the daemon has notified everything. Returns false if the
  /// supervisor was told of an error.
  bool Settle() {
    // The daemon polls again once it has passed a card on.
    const auto isIdle = [this] {
      const auto status = mKernel.GetStatus();
      return IsToldOfError() || (status.Device().polling && !status.commandWaits);
    };
    Require(Await(isIdle), "the reader polls again after a card");
    // A malformed UID is notified with every configuration, and after everything before it.
    const auto fence = fmt::format("FENCE{}", ++mFences);
    return !IsToldOfError() && mStation.Control().Inject(fence) == "Ok" &&
           Await([&] { return IsToldOfError() || Told("token " + fence + " ERfidUidInvalid") > 0; }) &&
           !IsToldOfError();
  }

  // What the supervisor was told in the present action.
  void Collect() {
    for (auto& told : mStation.Control().Take()) {
      if (told != "alive") {
        mTold.push_back(std::move(told));
      }
    }
  }
  size_t Told(const std::string& what) const {
    return static_cast<size_t>(std::count(mTold.begin(), mTold.end(), what));
  }
  bool IsToldOfError() const { return Told("Error") + Told("FatalError") > 0; }
  /// The first notification of a card; empty when there is none.
  std::string ToldOfCard() const {
    const auto told = std::find_if(mTold.begin(), mTold.end(), [](const std::string& what) {
      return (what.starts_with("token ") && !what.starts_with("token FENCE")) ||
             what.starts_with("learning ");
    });
    return told == mTold.end() ? "" : *told;
  }
  bool Await(const std::function<bool()>& condition) {
    const auto holds = [&] {
      Collect();
      return condition();
    };
    return Eventually(holds, kPatience);
  }

  Station mStation;
  virtualnfc::VirtualNfc& mKernel = mStation.Kernel();
  std::vector<std::string> mTold;
  const char* mAction = "start";

 private:
  unsigned mFences = 0;
};
