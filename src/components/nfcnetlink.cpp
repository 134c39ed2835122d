// The life cycle: opening, polling, closing.

#include "src/components/nfcnetlink.h"

#include <netlink/errno.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <utility>

#include "framework/log.h"

using namespace std::chrono_literals;

namespace {

constexpr const char* kClassName = "CNfcNetlink";
constexpr const char* kFamilyName = "nfc";

/// How soon to check polling that the kernel reports but nobody started.
constexpr std::chrono::milliseconds kDoubtPeriod = 1s;
/// The kernel needs some milliseconds to end the polling of a closed socket, and answers EBUSY until then.
constexpr auto kBusyPause = 50ms;
constexpr int kBusyTries = 4;

}  // namespace

CNfcNetlink::CNfcNetlink() : CNfcNetlink(Settings{}) {}

CNfcNetlink::CNfcNetlink(Settings settings) : mSettings(settings) {
  LOG_TRACE("{}::{}", kClassName, "CNfcNetlink");
}

CNfcNetlink::~CNfcNetlink() {
  if (!mMonitorThread.joinable() && !mCommandSocket && !mPolling.mayBePowered) {
    return;
  }
  try {
    DeinitializeController();
  } catch (const CRfidError& e) {
    LOG_ERROR("Could not close the controller. Error: {} rc: {}.", e.what(), e.GetErrorCode());
  }
}

void CNfcNetlink::SetErrorCallback(ErrorCallback onError) {
  mErrorCallback = std::move(onError);
}

void CNfcNetlink::InitializeController(TargetCallback onTarget) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  CloseEarlierController();
  mTargetCallback = std::move(onTarget);
  try {
    const std::lock_guard exchange(mExchangeMutex);
    OpenController();
  } catch (const CRfidError&) {
    mCommandSocket.reset();
    throw;
  }
  LOG_DEBUG("NFC GENL initialization complete, starting event monitor.");
  mStopFlag = false;
  mMonitorRuns = true;
  mEvents.Expect();
  try {
    mMonitorThread = std::thread(&CNfcNetlink::MonitorEvents, this);
  } catch (const std::system_error& e) {
    mMonitorRuns = false;
    mEvents.Abandon();
    mCommandSocket.reset();
    throw CRfidError(std::string("Could not start the event monitor: ") + e.what(), NLE_FAILURE);
  }
}

void CNfcNetlink::OpenCommandSocket() {
  mCommandSocket.reset(nl_socket_alloc());
  if (!mCommandSocket) {
    throw CRfidError("Could not allocate netlink command socket.", NLE_NOMEM);
  }
  if (const int result = genl_connect(mCommandSocket.get()); result != 0) {
    throw CRfidError("Could not connect to generic netlink.", std::abs(result));
  }
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(mSettings.answerTimeout);
  const std::chrono::microseconds rest = mSettings.answerTimeout - seconds;
  timeval timeout{};
  timeout.tv_sec = static_cast<decltype(timeout.tv_sec)>(seconds.count());
  timeout.tv_usec = static_cast<decltype(timeout.tv_usec)>(rest.count());
  if (setsockopt(nl_socket_get_fd(mCommandSocket.get()), SOL_SOCKET, SO_RCVTIMEO, &timeout,
                 sizeof(timeout)) != 0) {
    LOG_WARNING("Could not set the receive timeout of the command socket: {}", std::strerror(errno));
  }
  mFamilyId = genl_ctrl_resolve(mCommandSocket.get(), kFamilyName);
  if (mFamilyId < 0) {
    throw CRfidError("Could not resolve nfc netlink family.", std::abs(mFamilyId));
  }
}

void CNfcNetlink::OpenController() {
  OpenCommandSocket();
  mMulticastGroupId = ResolveMulticastId(mCommandSocket.get());
  if (mMulticastGroupId <= 0) {
    throw CRfidError("Could not resolve nfc multicast id.", std::abs(mMulticastGroupId));
  }
  LOG_DEBUG("NFC Netlink MCast ID: {}", mMulticastGroupId);
  if (const int result = GetNfcDevice(); result != 0) {
    throw CRfidError("Could find trf7970a reader.", result);
  }
}

/// Cleans up after an earlier opening: the monitor, polling that may still be ours, the command socket.
void CNfcNetlink::CloseEarlierController() {
  if (mMonitorThread.joinable()) {
    LOG_DEBUG("Controller is open, stopping the earlier event monitor.");
    StopMonitoringEvents();
    JoinMonitor();
  }
  const std::lock_guard exchange(mExchangeMutex);
  if (mCommandSocket && mDeviceInfo) {
    // Closing the socket ends polling too, but only some moments later: the next start could find it still
    // on.
    try {
      const bool wasPolling = SendStopPoll();
      LOG_DEBUG("Earlier polling: {}.", wasPolling ? "stopped" : "none");
    } catch (const CRfidError& e) {
      LOG_DEBUG("Could not stop the earlier polling: {} rc: {}.", e.what(), e.GetErrorCode());
    }
  }
  if (mCommandSocket) {
    LOG_DEBUG("Releasing the earlier command socket.");
    mCommandSocket.reset();
  }
  mPolling = {.mayBePowered = mPolling.mayBePowered};
}

void CNfcNetlink::StartPolling() {
  Poll(EPollReason::Wanted);
}

void CNfcNetlink::Poll(EPollReason reason) {
  LOG_TRACE("{}::{}", kClassName, "StartPolling");
  // Without a listening monitor, the event of a find would be lost, and the end of polling unnoticed.
  const bool isListening = mEvents.AwaitSetUp();
  LOG_DEBUG("Done waiting for event socket");

  const std::lock_guard exchange(mExchangeMutex);
  if (reason == EPollReason::AfterTarget && (!mPolling.wanted || mStopFlag)) {
    LOG_DEBUG("Polling is not wanted any more, not restarting it.");
    return;
  }
  mPolling.nextCheck.reset();
  if (!mCommandSocket || !isListening) {
    throw CRfidError("Netlink sockets not initialized. Initialize controller first.", NLE_BAD_SOCK);
  }
  if (!mDeviceInfo) {
    throw CRfidError("No device to power on/off. Initialize controller to find device.", NLE_NODEV);
  }
  if (const int result = SetDevicePower(true); result != 0) {
    throw CRfidError("Could not to power on reader for polling", result);
  }
  LOG_DEBUG("Starting Polling.");
  const int result = SendStartPoll();
  std::chrono::milliseconds trusted = mSettings.watchPeriod;
  // The kernel answers EBUSY when it polls already, but also when the poll is dead or another process owns
  // it. So EBUSY is a success only when the polling is ours.
  if (result == EALREADY || (result == EBUSY && mPolling.ours)) {
    LOG_DEBUG("Reader is already polling.");
    if (!mPolling.ours) {
      LOG_WARNING("The kernel says that the reader polls already, but nobody started it. Checking it soon.");
      trusted = std::min(trusted, kDoubtPeriod);
    }
  } else if (result != 0) {
    throw CRfidError("Error in SendAndReceiveMsgs within StartPolling", result);
  } else {
    mPolling.ours = true;
  }
  mPolling.wanted = true;
  mPolling.nextCheck = CNfcEventSocket::Clock::now() + trusted;
  if (trusted < mSettings.watchPeriod) {
    mEvents.WakeAtOnce();  // the monitor may sleep for a whole period
  }
  LOG_INFO("Polling started.");
}

void CNfcNetlink::StopPolling() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  LOG_DEBUG("Stopping polling.");
  const std::lock_guard exchange(mExchangeMutex);
  mPolling.wanted = false;
  mPolling.nextCheck.reset();
  if (!mDeviceInfo) {
    throw CRfidError("No device to power on/off. Initialize controller to find device.", NLE_NODEV);
  }
  if (!mCommandSocket) {
    throw CRfidError("Netlink sockets not initialized. Initialize controller first.", NLE_BAD_SOCK);
  }
  if (!SendStopPoll()) {
    LOG_INFO("Reader is not currently polling. Continuing.");
  }
  if (const int result = SetDevicePower(false); result != 0) {
    throw CRfidError("Failed to power off reader after polling.", result);
  }
  LOG_INFO("Polling stopped.");
}

void CNfcNetlink::DeinitializeController() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  const int stopped = StopMonitoringEvents();
  JoinMonitor();  // even when no request could wake the monitor
  LOG_DEBUG("Event monitor stopped.");
  const std::lock_guard exchange(mExchangeMutex);
  SwitchOff();
  mPolling = {.mayBePowered = mPolling.mayBePowered};  // the next close retries a failed power-off
  if (mCommandSocket) {
    LOG_TRACE("Freeing NFC command socket");
    mCommandSocket.reset();
  }
  if (mDeviceInfo) {
    LOG_TRACE("Clearing {} device info", mDeviceInfo->name);
    mDeviceInfo.reset();
  }
  if (stopped != 0) {
    throw CRfidError("Failed to stop event monitor", stopped);
  }
  LOG_INFO("NFC controller deinitialized");
}

/// Leaves the reader without power and polling, whatever happened before. Best effort: failures are only
/// logged.
void CNfcNetlink::SwitchOff() {
  if (!mPolling.mayBePowered) {
    return;
  }
  LOG_DEBUG("The reader may still be on, switching it off.");
  try {
    if (!mCommandSocket) {
      OpenCommandSocket();
    }
    if (const int result = mDeviceInfo ? 0 : GetNfcDevice(); result != 0) {
      throw CRfidError("Could find trf7970a reader.", result);
    }
    for (int tries = kBusyTries; tries > 0; --tries) {
      try {
        SendStopPoll();
        break;
      } catch (const CRfidError& e) {
        if (e.GetErrorCode() != EBUSY) {
          LOG_DEBUG("No polling was stopped: {} rc: {}.", e.what(), e.GetErrorCode());
          break;
        }
      }
      std::this_thread::sleep_for(kBusyPause);
    }
    if (const int result = SetDevicePower(false); result != 0 && result != ENODEV) {
      throw CRfidError("Failed to power off reader after polling.", result);
    }
  } catch (const CRfidError& e) {
    LOG_ERROR("The reader may stay on. Error: {} rc: {}.", e.what(), e.GetErrorCode());
  }
}
