#pragma once

#include <netlink/handlers.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "src/components/nlhandles.h"
#include "src/components/wakeevent.h"

/// The socket that receives the kernel's NFC events.
///
/// Threads: the monitor's thread sets it up, waits, receives and closes. The owner's thread announces a
/// monitor, waits for its set-up and wakes it.
class CNfcEventSocket {
 public:
  using Clock = std::chrono::steady_clock;

  /// Why something failed: the text to log and libnl's positive code. No text: nothing failed.
  struct Failure {
    std::string text;
    int code = 0;
  };

  // The owner's thread.

  /// Announces a monitor: from now on AwaitSetUp waits for its set-up.
  void Expect();
  /// Withdraws the announcement.
  void Abandon();
  /// Blocks while a set-up is under way. True when events are being received.
  bool AwaitSetUp();
  /// Sends a request that the kernel must answer with an error, so that the socket becomes readable. Blocks
  /// while another command, of this process or another, waits for the reader.
  Failure Wake(int family);
  /// Ends the monitor's sleep once, even when the kernel does not answer.
  void WakeAtOnce() { mWake.Signal(); }

  // The monitor's thread.

  /// Connects and joins the multicast group. After a failure, AwaitSetUp waits until Close.
  Failure SetUp(int group);
  /// Sleeps until an event can be read, somebody wakes the monitor, or the time has come. False in the last
  /// case.
  bool Wait(Clock::time_point until);
  /// Waits for an event. True when one can be read within that time.
  bool HasEvents(std::chrono::milliseconds patience) const;
  /// Reads what has arrived. Returns libnl's result.
  int Receive(nl_recvmsg_msg_cb_t onEvent, void* argument);
  /// Drops a datagram that is too short for any message. libnl leaves such a datagram in the socket.
  void DropEmpty();
  void Close();

 private:
  enum class EState { Closed, SettingUp, Listening };

  Failure Connect(int group);

  NlSocket mSocket;        // made and released by the monitor, under mMutex
  NlCallbacks mCallbacks;  // the monitor's thread only
  CWakeEvent mWake;
  std::mutex mMutex;               // held while a request is sent, see Wake
  EState mState = EState::Closed;  // guarded by mMutex
  std::condition_variable mSetUpEnded;
};
