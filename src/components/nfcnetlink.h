#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "src/components/infcnetlink.h"
#include "src/components/nfceventsocket.h"
#include "src/components/nfcmessages.h"
#include "src/components/nlhandles.h"

/// The NFC controller on the kernel's generic-netlink family "nfc".
///
/// There are two sockets. Requests go out on the command socket, one exchange at a time under mExchangeMutex,
/// because the kernel ties polling to the socket that started it. Events arrive on the event socket, which
/// belongs to the monitor thread.
///
/// Threads: see INfcNetlink. The monitor thread ("nfc-monitor") runs from InitializeController to
/// DeinitializeController. It queries the tags of each find, calls the target callback and restarts polling.
/// The kernel can end polling without an event, so the monitor also stops and restarts polling when nothing
/// was found for one watch period. Lock: mExchangeMutex may be held for as long as the chip takes, but never
/// while a callback runs.
///
/// nfcnetlink.cpp has the life cycle, nfcnetlink.requests.cpp the requests, nfcnetlink.events.cpp the event
/// side.
class CNfcNetlink : public INfcNetlink {
 public:
  /// The device that the station's reader is.
  static constexpr uint32_t kReaderIndex = 0;

  struct Settings {
    /// Timeout for the answer after the send. The real kernel answers before the send returns, however long
    /// the chip took.
    std::chrono::milliseconds answerTimeout = std::chrono::seconds(5);
    /// How long to trust polling while nothing is found.
    std::chrono::milliseconds watchPeriod = std::chrono::seconds(20);
  };

  CNfcNetlink();
  explicit CNfcNetlink(Settings settings);
  ~CNfcNetlink() override;  ///< closes an open controller
  CNfcNetlink(const CNfcNetlink&) = delete;
  CNfcNetlink& operator=(const CNfcNetlink&) = delete;

  void SetErrorCallback(ErrorCallback onError) override;
  void InitializeController(TargetCallback onTarget) override;
  void StartPolling() override;
  void StopPolling() override;
  void DeinitializeController() override;

  /// Whether the monitor has reached its wait for events since the last call. It does so at least once per
  /// watch period. True while no monitor runs. One thread at a time; never blocks.
  bool HasMonitorMoved();

 private:
  enum class EPollReason { Wanted, AfterTarget };

  struct Polling {
    bool wanted = false;        ///< between StartPolling and StopPolling
    bool ours = false;          ///< as far as this controller knows, the kernel polls for it
    bool mayBePowered = false;  ///< power was requested and not taken away since
    std::optional<CNfcEventSocket::Clock::time_point> nextCheck{};  ///< empty: no check is due
  };

  // Requests, with mExchangeMutex held; 0 or a positive code.
  int SendAndReceiveMsg(nl_sock* socket, nl_msg* request, nl_recvmsg_msg_cb_t validHandler = nullptr,
                        void* handlerArgument = nullptr, std::chrono::milliseconds sendLimit = {});
  int ResolveMulticastId(nl_sock* socket);
  int GetNfcDevice();
  int SetDevicePower(bool on);
  int SendStartPoll();
  bool SendStopPoll();

  // The life cycle, with mExchangeMutex held.
  void OpenCommandSocket();
  void OpenController();
  void SwitchOff();

  void CloseEarlierController();
  void Poll(EPollReason reason);

  // The event side.
  int StopMonitoringEvents();
  void JoinMonitor();
  void MonitorEvents();
  void ReceiveEvents();
  int ProcessEvent(nl_msg* msg);
  int TargetsFound(nlmsghdr* event);
  int GetTargets(nl_msg* msg);
  void RestartPolling();
  std::optional<CNfcEventSocket::Clock::time_point> NextCheck();
  bool StopChecking();
  void CheckSoon();
  void CheckPolling();
  bool RenewPolling();
  void ReportFailure(const std::string& what, int code) const;
  std::string ProtocolToString(uint32_t protocols) const;

  const Settings mSettings;
  std::optional<NfcDeviceInfo> mDeviceInfo;
  std::atomic<bool> mStopFlag{true};
  std::atomic<bool> mMonitorRuns{false};
  std::atomic<bool> mMonitorMoved{false};
  std::optional<CToken> mLastTarget;  // monitor thread only
  NlSocket mCommandSocket;
  CNfcEventSocket mEvents;
  int mFamilyId = -1;
  int mMulticastGroupId = -1;
  std::thread mMonitorThread;
  TargetCallback mTargetCallback;  // both callbacks are written while no monitor runs
  ErrorCallback mErrorCallback;
  std::mutex mExchangeMutex;  // one exchange on the command socket at a time
  Polling mPolling;           // guarded by mExchangeMutex
};
