#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tools/harness/station.h"
#include "tools/soak/ledger.h"

/// The UID of what Fence injects begins with this.
constexpr const char* kFenceUid = "FENCE";

/// The soak's hands and eyes: a station, what its supervisor is told, and the requirements that do not hold.
/// One thread. Every wait ends.
class StationDriver {
 public:
  const Ledger& Book() const { return mLedger; }
  /// Keeps the daemon's logs. Returns their folder.
  std::string KeepLogs();

 protected:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kPatience{40};

  explicit StationDriver(virtualnfc::Stack stack);

  void PlugIn();
  void Enable() { Request(true); }
  void Disable();
  /// Asks the daemon to enable or disable and waits for the state.
  void Request(bool enable);
  void StopDaemon(int signal);
  /// Leaves the card there. Returns the longest time for which the reader did not see it.
  Clock::duration Hold(std::chrono::milliseconds time);
  /// Waits until the reader polls again and the daemon has notified everything. Returns false if the
  /// supervisor was told of an error.
  bool Settle();
  /// Waits for everything that the daemon has sent. Returns false if it refuses because it is not enabled.
  bool Fence();

  // What the supervisor was told in the present action.
  void Collect();
  size_t Told(const std::string& what) const;
  bool Await(const std::function<bool()>& condition);
  bool AwaitTold(const std::string& what, size_t count = 1);
  bool IsToldOfError() const { return Told("Error") + Told("FatalError") > 0; }

  /// Enters a problem unless the condition holds.
  bool Require(bool condition, const std::string& what);

  Station mStation;
  Ledger mLedger;
  std::vector<std::string> mTold;
  const char* mAction = "begin";

 private:
  unsigned mFences = 0;
};
