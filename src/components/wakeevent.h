#pragma once

/// Wakes a thread that sleeps on descriptors. Signal may come from any thread; it stays signalled until
/// Reset.
class CWakeEvent {
 public:
  CWakeEvent();  ///< throws std::system_error when no descriptor can be had
  ~CWakeEvent();
  CWakeEvent(const CWakeEvent&) = delete;
  CWakeEvent& operator=(const CWakeEvent&) = delete;

  void Signal();
  void Reset();
  int GetFd() const { return mFd; }

 private:
  int mFd;
};
