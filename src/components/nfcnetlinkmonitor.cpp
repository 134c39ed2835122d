// The event side of CNfcNetlink: the monitor thread, the finds it reads and what it does about them.

#include <linux/nfc.h>
#include <netlink/errno.h>
#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "framework/log.h"
#include "framework/thread.h"
#include "src/components/nfcnetlink.h"

namespace {

constexpr const char* ClassName = "CNfcNetlink";

/// Events carry no sequence numbers of ours.
int AcceptSequence(nl_msg*, void*) {
  return NL_OK;
}

}  // namespace

int CNfcNetlink::StopMonitoringEvents() {
  LOG_TRACE("{}::{}", ClassName, __func__);
  mStopFlag = true;
  if (!mMonitorThread.joinable()) {
    return 0;
  }
  {
    const std::lock_guard lock(mMutex);
    if (mEventSocket &&
        mSetUpDone) {  // one that is still being set up sees the stop flag before it first sleeps
      // The family has no command 0: the kernel's error answer makes the monitor's socket readable.
      const NlMessage message(nlmsg_alloc());
      if (!message) {
        LOG_ERROR("Error allocating struct nl_msg.");
        return NLE_NOMEM;
      }
      if (!PutHeader(message.get(), 0, NFC_CMD_UNSPEC)) {
        LOG_ERROR("Error: genlmsg_put returned null netlink header.");
        return NLE_INVAL;
      }
      if (const int result = nl_send_auto(mEventSocket.get(), message.get()); result < 0) {
        LOG_ERROR("Error: Failed to stop event monitor {}.", nl_geterror(result));
        return -result;
      }
    }
  }
  JoinMonitor();
  return 0;
}

void CNfcNetlink::JoinMonitor() {
  if (mMonitorThread.joinable()) {
    mWakeEvent.Signal();
    mMonitorThread.join();
  }
}

void CNfcNetlink::MonitorEvents() {
  SetThreadName("nfc-monitor");
  LOG_TRACE("{}::{}", ClassName, __func__);
  {
    const std::lock_guard lock(mMutex);
    mEventSocket.reset(nl_socket_alloc());
    LOG_DEBUG("Notifying that the event socket is ready");
    mEventSocketReady = true;  // also without a socket: nobody may wait for a monitor that has given up
  }
  mReadySignal.notify_one();
  const bool listening = SetUpEventSocket();
  {
    const std::lock_guard lock(mMutex);
    if (!listening) {
      mClosedSockets.Close(std::move(mEventSocket));  // StartPolling finds it gone and fails
    }
    mSetUpDone = true;
  }
  mReadySignal.notify_one();
  if (listening) {
    ReceiveEvents();
  }
}

/// Connects the event socket and joins the "events" group.
bool CNfcNetlink::SetUpEventSocket() {
  if (!mEventSocket) {
    LOG_ERROR("Error: Could not allocate netlink event socket.");
    return false;
  }
  if (const int result = genl_connect(mEventSocket.get()); result != 0) {
    LOG_ERROR("Error: Could not connect event socket to generic netlink: {}.", nl_geterror(result));
    return false;
  }
  if (const int result = nl_socket_add_membership(mEventSocket.get(), mMulticastGroupId); result != 0) {
    LOG_ERROR("Error: Could not add membership to mcast nfc events: {}.", nl_geterror(result));
    return false;
  }
  mEventCallbacks.reset(nl_cb_alloc(NL_CB_VERBOSE));
  if (!mEventCallbacks) {
    LOG_ERROR("Error allocating struct nl_cb.");
    return false;
  }
  // A message that promises a continuation that never comes must not hold the monitor in a receive.
  if (const int result = nl_socket_set_nonblocking(mEventSocket.get()); result != 0) {
    LOG_ERROR("Error: Could not make the event socket non-blocking: {}.", nl_geterror(result));
    return false;
  }
  const int highest = std::max(nl_socket_get_fd(mEventSocket.get()), mWakeEvent.GetFd());
  if (highest >= FD_SETSIZE) {
    LOG_ERROR("Error: Too many open descriptors to wait for events: {} of {}.", highest, FD_SETSIZE);
    return false;
  }
  return true;
}

void CNfcNetlink::ReceiveEvents() {
  nl_cb_set(mEventCallbacks.get(), NL_CB_SEQ_CHECK, NL_CB_CUSTOM, AcceptSequence, nullptr);
  nl_cb_set(
      mEventCallbacks.get(), NL_CB_VALID, NL_CB_CUSTOM,
      [](nl_msg* msg, void* self) { return static_cast<CNfcNetlink*>(self)->ProcessEvent(msg); }, this);

  const int fd = nl_socket_get_fd(mEventSocket.get());
  const int wakeFd = mWakeEvent.GetFd();
  int failure = 0;
  while (failure == 0 && !mStopFlag) {
    fd_set readable;
    int result = 0;
    do {
      FD_ZERO(&readable);
      FD_SET(fd, &readable);
      FD_SET(wakeFd, &readable);
      result = select(std::max(fd, wakeFd) + 1, &readable, nullptr, nullptr, nullptr);
    } while (result < 0 && errno == EINTR);
    if (mStopFlag) {
      break;
    }
    if (result != 0 && FD_ISSET(fd, &readable)) {
      const int received = nl_recvmsgs_report(mEventSocket.get(), mEventCallbacks.get());
      if (received == 0) {
        DropEmptyDatagram(mEventSocket.get());
        LOG_ERROR("Skipping a netlink event that is cut off.");
        RestartPolling();  // it may have been a tag, and polling be over
      } else if (received < 0 && received != -NLE_AGAIN) {
        LOG_ERROR("nl_recvmsgs got an error: {}.", nl_geterror(received));
        failure = std::abs(received);
      }
    }
  }
  mEventCallbacks.reset();
  {
    const std::lock_guard lock(mMutex);
    mClosedSockets.Close(std::move(mEventSocket));
  }
  LOG_DEBUG("NFC event monitor stopped.");
  if (failure != 0) {
    ReportFailure("The event monitor ended", failure);
  }
}

int CNfcNetlink::ProcessEvent(nl_msg* msg) {
  LOG_TRACE("{}::{}", ClassName, __func__);
  LOG_DEBUG("Processing netlink event...");
  const auto command = DecodeCommand(nlmsg_hdr(msg));
  if (!command || !IsFromKernel(msg)) {
    LOG_ERROR("Skipping a netlink event that is malformed or not from the kernel: port {}, {} bytes.",
              nlmsg_get_src(msg)->nl_pid, nlmsg_hdr(msg)->nlmsg_len);
    if (IsFromKernel(msg)) {
      RestartPolling();  // as for one that is cut off
    }
    return NL_SKIP;
  }
  if (*command != NFC_EVENT_TARGETS_FOUND) {
    return NL_SKIP;
  }
  LOG_INFO("Target found.");
  mLastTarget.reset();
  if (const int result = TargetsFound(nlmsg_hdr(msg)); result != 0) {
    LOG_ERROR("Error: TargetsFound got {}.", nl_geterror(result));
    if (mPollingWanted) {
      ReportFailure("The tag found could not be queried", result);
    }
    return result;
  }
  try {
    mTargetCallback(mLastTarget.value_or(CToken{.uid = "", .protocol = "Unsupported protocol"}));
  } catch (const std::exception& e) {
    LOG_ERROR("The target callback failed: {}", e.what());  // must not pass through libnl; polling goes on
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

/// Tells the owner that no more tags will be read, unless the monitor is being stopped anyway.
void CNfcNetlink::ReportFailure(const std::string& what, int code) const {
  if (!mStopFlag && mErrorCallback) {
    mErrorCallback(CRfidError(what, code));
  }
}

int CNfcNetlink::TargetsFound(nlmsghdr* event) {
  LOG_TRACE("{}::{}", ClassName, __func__);
  const auto device = DecodeDeviceIndex(event);
  if (!device) {
    return ENODEV;
  }
  const std::lock_guard exchange(mExchangeMutex);
  if (mDeviceInfo && *device == mDeviceInfo->index) {
    mPolling = false;  // a find ends the kernel's polling
  }
  const NlMessage message(nlmsg_alloc());
  if (!message) {
    return ENOMEM;
  }
  if (!PutHeader(message.get(), NLM_F_DUMP, NFC_CMD_GET_TARGET)) {
    return NLE_INVAL;
  }
  nla_put_u32(message.get(), NFC_ATTR_DEVICE_INDEX, *device);
  return SendAndReceiveMsg(
      mCommandSocket.get(), message.get(),
      [](nl_msg* target, void* self) { return static_cast<CNfcNetlink*>(self)->GetTargets(target); }, this);
}

int CNfcNetlink::GetTargets(nl_msg* msg) {
  LOG_TRACE("{}::{}", ClassName, __func__);
  const auto target = DecodeTarget(nlmsg_hdr(msg));
  if (!target) {
    LOG_ERROR("Skipping a target without protocols.");
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
