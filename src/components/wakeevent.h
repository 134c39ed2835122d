#pragma once

/// Wakes a thread that sleeps on descriptors. Any thread may call Signal. The event stays signalled until
/// Reset.
class CWakeEvent {
 public:
  CWakeEvent();  ///< throws std::system_error when no descriptor is left
  ~CWakeEvent();
  CWakeEvent(const CWakeEvent&) = delete;
  CWakeEvent& operator=(const CWakeEvent&) = delete;

  void Signal();
  void Reset();
  int GetFd() const { return mFd; }

 private:
  int mFd;
};
