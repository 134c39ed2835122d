#pragma once

#include <chrono>

/// Blocks SIGINT and SIGTERM and makes a descriptor readable when one arrives. Create it before the process
/// has other threads: they inherit the blocked signals, so that the signals arrive here.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  /// Becomes readable when a signal has come.
  int Descriptor() const { return mDescriptor; }

  /// Waits for a signal, or until nobody reads the standard output any more.
  void Wait() const;

  /// Waits for a signal. Returns false on timeout.
  bool HaveCome(std::chrono::milliseconds timeout = {}) const;

 private:
  int mDescriptor;
};
