#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tools/harness/station.h"
#include "tools/soak/ledger.h"

/// Prefix of the UIDs that Fence injects.
constexpr const char* kFenceUid = "FENCE";

/// Operates a station and watches what its supervisor is told. Notes every violated requirement. One thread.
/// Every wait has a timeout.
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
  /// Leaves the card at the reader. Returns the longest time for which the reader did not see the card.
  Clock::duration Hold(std::chrono::milliseconds time);
  /// Waits until the reader polls again and the daemon has notified everything. Returns false if the
  /// supervisor was told of an error.
  bool Settle();
  /// Waits until everything that the daemon has sent has arrived. Returns false if the daemon refuses because
  /// it is not enabled.
  bool Fence();

  // What the supervisor was told in the present action.
  void Collect();
  size_t Told(const std::string& what) const;
  bool Await(const std::function<bool()>& condition);
  bool AwaitTold(const std::string& what, size_t count = 1);
  bool IsToldOfError() const { return Told("Error") + Told("FatalError") > 0; }

  /// Notes a problem unless the condition holds. Returns the condition.
  bool Require(bool condition, const std::string& what);

  Station mStation;
  Ledger mLedger;
  std::vector<std::string> mTold;
  const char* mAction = "begin";

 private:
  unsigned mFences = 0;
};
