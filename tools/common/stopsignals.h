#pragma once

#include <chrono>

/// SIGINT and SIGTERM as something to wait for. To be made before the process has other threads: they inherit
/// that the two signals are blocked, so that the signals come here.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  /// Becomes readable when a signal has come.
  int Descriptor() const { return mDescriptor; }

  /// Waits for a signal. Returns false on timeout.
  bool HaveCome(std::chrono::milliseconds timeout = {}) const;

 private:
  int mDescriptor;
};
