// The event side: the monitor thread, the tags that it reports, and its checks of the kernel's polling.

#include <linux/nfc.h>
#include <netlink/errno.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <utility>

#include "framework/log.h"
#include "framework/thread.h"
#include "src/components/nfcnetlink.h"
#include "src/components/nfcrequests.h"

using namespace std::chrono_literals;
using Clock = CNfcEventSocket::Clock;

namespace {

constexpr const char* kClassName = "CNfcNetlink";

/// Between STOP_POLL and START_POLL. After a shorter pause, a driver can report an old find for the new poll.
constexpr auto kRestPause = 20ms;
/// How long the event of a find may come after the kernel has ended polling for it.
constexpr auto kLateEvent = 200ms;

}  // namespace

int CNfcNetlink::StopMonitoringEvents() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  mStopFlag = true;
  if (!mMonitorThread.joinable()) {
    return 0;
  }
  if (const auto failure = mEvents.Wake(mFamilyId); failure.code != 0) {
    LOG_ERROR("{}", failure.text);
    return failure.code;
  }
  JoinMonitor();
  return 0;
}

void CNfcNetlink::JoinMonitor() {
  if (mMonitorThread.joinable()) {
    mEvents.WakeAtOnce();
    mMonitorThread.join();
  }
}

void CNfcNetlink::MonitorEvents() {
  SetThreadName("nfc-monitor");
  LOG_TRACE("{}::{}", kClassName, __func__);
  LOG_DEBUG("Notifying that the event socket is ready");
  if (const auto failure = mEvents.SetUp(mMulticastGroupId); failure.code != 0) {
    LOG_ERROR("{}", failure.text);
    mEvents.Close();  // StartPolling finds the socket gone and fails
  } else {
    ReceiveEvents();
  }
  mMonitorRuns = false;
}

bool CNfcNetlink::HasMonitorMoved() {
  return mMonitorMoved.exchange(false) || !mMonitorRuns;
}

void CNfcNetlink::ReceiveEvents() {
  int failure = 0;
  while (failure == 0 && !mStopFlag) {
    mMonitorMoved = true;
    // StartPolling wakes the monitor only when a check is due in less than a period.
    const bool isReadable = mEvents.Wait(NextCheck().value_or(Clock::now() + mSettings.watchPeriod));
    if (mStopFlag) {
      break;
    }
    if (isReadable) {
      const int received = mEvents.Receive(
          [](nl_msg* msg, void* self) { return static_cast<CNfcNetlink*>(self)->ProcessEvent(msg); }, this);
      if (received == 0) {
        mEvents.DropEmpty();
        LOG_ERROR("Skipping a netlink event that is cut off.");
        CheckSoon();  // the event may have been TARGETS_FOUND, which ends polling
      } else if (received < 0 && received != -NLE_AGAIN) {
        LOG_ERROR("nl_recvmsgs got an error: {}.", nl_geterror(received));
        failure = std::abs(received);
      }
    }
    if (const auto check = NextCheck(); failure == 0 && check && *check <= Clock::now()) {
      CheckPolling();
    }
  }
  mEvents.Close();
  LOG_DEBUG("NFC event monitor stopped.");
  if (failure != 0) {
    ReportFailure("The event monitor ended", failure);
  }
}

int CNfcNetlink::ProcessEvent(nl_msg* msg) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  LOG_DEBUG("Processing netlink event...");
  const auto command = DecodeCommand(nlmsg_hdr(msg));
  if (!command || !IsFromKernel(msg)) {
    LOG_ERROR("Skipping a netlink event that is malformed or not from the kernel: port {}, {} bytes.",
              nlmsg_get_src(msg)->nl_pid, nlmsg_hdr(msg)->nlmsg_len);
    if (IsFromKernel(msg)) {
      CheckSoon();  // treated like an event that is cut off
    }
    return NL_SKIP;
  }
  if (*command == NFC_EVENT_DEVICE_REMOVED && DecodeDeviceIndex(nlmsg_hdr(msg)) == kReaderIndex) {
    CheckSoon();
  }
  if (*command != NFC_EVENT_TARGETS_FOUND) {
    return NL_SKIP;
  }
  LOG_INFO("Target found.");
  mLastTarget.reset();
  if (const int result = TargetsFound(nlmsg_hdr(msg)); result != 0) {
    LOG_ERROR("Error: TargetsFound got {}.", nl_geterror(result));
    if (StopChecking()) {
      ReportFailure("The tag found could not be queried", result);
    }
    return result;
  }
  // No exception may pass through libnl, and polling must go on.
  try {
    mTargetCallback(mLastTarget.value_or(CToken{.uid = "", .protocol = "Unsupported protocol"}));
  } catch (const std::exception& e) {
    LOG_ERROR("The target callback failed: {}", e.what());
  } catch (...) {
    LOG_ERROR("The target callback failed: unknown exception");
  }
  RestartPolling();
  return NL_SKIP;
}

void CNfcNetlink::RestartPolling() {
  try {
    Poll(EPollReason::AfterTarget);
  } catch (const CRfidError& e) {
    LOG_ERROR("Could not restart polling. Error: {} rc: {}.", e.what(), e.GetErrorCode());
    ReportFailure(e.what(), e.GetErrorCode());
  }
}

/// Ends the checks of polling, because the end of polling is about to be reported. False when nobody wants
/// polling any more, so that there is nothing to report.
bool CNfcNetlink::StopChecking() {
  const std::lock_guard exchange(mExchangeMutex);
  mPolling.nextCheck.reset();
  return mPolling.wanted;
}

std::optional<Clock::time_point> CNfcNetlink::NextCheck() {
  const std::lock_guard exchange(mExchangeMutex);
  return mPolling.nextCheck;
}

void CNfcNetlink::CheckSoon() {
  const std::lock_guard exchange(mExchangeMutex);
  if (mPolling.nextCheck) {
    mPolling.nextCheck = Clock::now();
  }
}

/// Restarts polling, because no command tells a dead poll from a live one.
void CNfcNetlink::CheckPolling() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  try {
    const std::lock_guard exchange(mExchangeMutex);
    if (mPolling.wanted && mPolling.nextCheck && !mStopFlag) {
      mPolling.nextCheck.reset();
      mPolling.nextCheck = Clock::now() + (RenewPolling() ? mSettings.watchPeriod : 0ms);
    }
  } catch (const CRfidError& e) {
    LOG_ERROR("Could not renew polling. Error: {} rc: {}.", e.what(), e.GetErrorCode());
    ReportFailure(e.what(), e.GetErrorCode());
  }
}

/// False when the event of a find has arrived. Handling it restarts polling.
bool CNfcNetlink::RenewPolling() {
  const bool wasPolling = SendStopPoll();
  std::this_thread::sleep_for(kRestPause);
  if (!wasPolling && mEvents.HasEvents(kLateEvent)) {
    return false;
  }
  int result = SendStartPoll();
  if (result == 0 && wasPolling) {
    LOG_DEBUG("Polling renewed.");
  } else if (result == 0) {
    LOG_WARNING("Polling had ended unnoticed. Started it again.");
  } else if (result != ENODEV) {
    LOG_WARNING("Kernel and reader disagree about polling. Switching the reader off and on.");
    for (const bool on : {false, true}) {
      if (const int power = SetDevicePower(on); power != 0) {
        throw CRfidError("Could not switch the reader off and on", power);
      }
    }
    result = SendStartPoll();
  }
  if (result != 0) {
    throw CRfidError("Error in SendAndReceiveMsgs within StartPolling", result);
  }
  mPolling.ours = true;
  return true;
}

/// Tells the owner that no more tags will be read, unless the monitor is being stopped.
void CNfcNetlink::ReportFailure(const std::string& what, int code) const {
  if (mStopFlag || !mErrorCallback) {
    return;
  }
  try {
    mErrorCallback(CRfidError(what, code));
  } catch (const std::exception& e) {
    LOG_ERROR("The error callback failed: {}", e.what());
  } catch (...) {
    LOG_ERROR("The error callback failed: unknown exception");
  }
}

int CNfcNetlink::TargetsFound(nlmsghdr* event) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  const std::lock_guard exchange(mExchangeMutex);  // after a StartPolling in progress has noted its success
  const auto device = DecodeDeviceIndex(event);
  if (!device) {
    return ENODEV;
  }
  if (*device == kReaderIndex) {  // a find ends the kernel's polling
    mPolling.ours = false;
    mPolling.nextCheck.reset();
  }
  const auto request = BuildRequest(NfcRequests::kGetTarget, mFamilyId, {{NFC_ATTR_DEVICE_INDEX, *device}});
  if (!request.message) {
    return request.code;
  }
  return SendAndReceiveMsg(
      mCommandSocket.get(), request.message.get(),
      [](nl_msg* target, void* self) { return static_cast<CNfcNetlink*>(self)->GetTargets(target); }, this);
}

int CNfcNetlink::GetTargets(nl_msg* msg) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  const auto target = DecodeTarget(nlmsg_hdr(msg));
  if (!target) {
    LOG_ERROR("Skipping a malformed target.");
    return NL_OK;
  }
  auto protocol = ProtocolToString(target->protocols);
  if (target->uid.empty()) {
    LOG_WARNING("Tag found with protocol {}, but no UID found. Continuing polling.", target->protocols);
  }
  mLastTarget = CToken{.uid = FormatUid(target->uid), .protocol = std::move(protocol)};
  return NL_OK;
}

std::string CNfcNetlink::ProtocolToString(uint32_t protocols) const {
  switch (protocols) {
    case NFC_PROTO_MIFARE_MASK:
      return "MIFARE";
    case NFC_PROTO_FELICA_MASK:
      return "FELICA";
    case NFC_PROTO_ISO14443_MASK:
      return "ISO14443-A";
    case NFC_PROTO_NFC_DEP_MASK:
      return "ISO-DEP";
    case NFC_PROTO_ISO14443_B_MASK:
      return "ISO14443-B";
    case NFC_PROTO_ISO15693_MASK:
      return "ISO15693";
    default:
      LOG_WARNING("Unsupported tag protocol: {}", protocols);
      return "Unsupported protocol";
  }
}
