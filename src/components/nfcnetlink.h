#pragma once

#include <netlink/genl/genl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "src/components/infcnetlink.h"
#include "src/components/nfcmessages.h"
#include "src/components/nlhandles.h"
#include "src/components/wakeevent.h"

/// The NFC controller on the kernel's generic-netlink family "nfc".
///
/// Two sockets: requests go out on the command socket, one exchange at a time under mExchangeMutex (the
/// kernel ties polling to the socket that started it); events arrive on the event socket, which belongs to
/// the monitor thread.
///
/// Threads: see INfcNetlink. The monitor thread ("nfc-monitor") runs from InitializeController to
/// DeinitializeController; it queries the tags of each find, calls the target callback and restarts polling.
/// Locks: mExchangeMutex may be held for as long as the chip takes; mMutex only for moments, but while the
/// monitor is being woken, which waits behind a command that waits for its chip. Neither is held while a
/// callback runs.
class CNfcNetlink : public INfcNetlink {
 public:
  /// `answerTimeout` bounds each wait for an answer that never comes, and for how long messages that are none
  /// may keep coming meanwhile. The kernel's answer is there when the sending of a request returns, however
  /// long the chip took.
  explicit CNfcNetlink(std::chrono::milliseconds answerTimeout = std::chrono::seconds(5));
  ~CNfcNetlink()
      override;  ///< on an open controller: ends polling, powers the reader down, joins the monitor
  CNfcNetlink(const CNfcNetlink&) = delete;
  CNfcNetlink& operator=(const CNfcNetlink&) = delete;

  void InitializeController(TargetCallback onTarget, ErrorCallback onError) override;
  void StartPolling() override;
  void StopPolling() override;
  void DeinitializeController() override;

 private:
  enum class EPollReason { Wanted, AfterTarget };

  // Requests, on the thread that holds mExchangeMutex; 0 or a positive code.
  int SendAndReceiveMsg(nl_sock* socket, nl_msg* request, nl_recvmsg_msg_cb_t validHandler,
                        void* handlerArgument);
  int ResolveMulticastId(nl_sock* socket);
  int GetNfcDevice();
  int SetDevicePower(bool on);

  void OpenController();
  void CloseEarlierController();
  void Poll(EPollReason reason);
  int SendStartPoll();
  bool SendStopPoll();
  void StopEarlierPolling();
  bool PutHeader(nl_msg* message, int flags, uint8_t command) const;

  // The event side.
  int StopMonitoringEvents();
  void JoinMonitor();
  void MonitorEvents();
  void ReceiveEvents();
  bool SetUpEventSocket();
  int ProcessEvent(nl_msg* msg);
  int TargetsFound(nlmsghdr* event);
  int GetTargets(nl_msg* msg);
  void RestartPolling();
  void ReportFailure(const std::string& what, int code) const;
  std::string ProtocolToString(uint32_t protocols) const;

  std::optional<NfcDeviceInfo> mDeviceInfo;
  std::atomic<bool> mStopFlag{true};
  std::optional<CToken> mLastTarget;  // monitor thread only
  ClosedSockets mClosedSockets;
  NlSocket mCommandSocket;
  NlSocket mEventSocket;  // made and released by the monitor, under mMutex
  int mFamilyId = -1;
  int mMulticastGroupId = -1;
  std::thread mMonitorThread;
  std::mutex mMutex;
  bool mEventSocketReady = false;  // guarded by mMutex
  std::condition_variable mReadySignal;
  TargetCallback mTargetCallback;

  ErrorCallback mErrorCallback;
  const std::chrono::milliseconds mAnswerTimeout;
  std::mutex mExchangeMutex;  // one exchange on the command socket at a time
  std::atomic<bool> mPollingWanted{
      false};                    // written under mExchangeMutex: between StartPolling and StopPolling
  bool mPolling = false;         // under mExchangeMutex: the kernel polls for us, as far as we know
  bool mSetUpDone = false;       // guarded by mMutex: the monitor listens, or has given up
  NlCallbacks mEventCallbacks;   // monitor thread only
  bool mMonitorStarted = false;  // guarded by mMutex: a monitor was started at some time
  CWakeEvent mWakeEvent;         // ends the monitor's sleep should the kernel not answer
};
