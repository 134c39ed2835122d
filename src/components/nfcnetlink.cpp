#include "src/components/nfcnetlink.h"

#include <linux/genetlink.h>
#include <linux/nfc.h>
#include <netlink/errno.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <system_error>
#include <utility>

#include "framework/log.h"
#include "framework/thread.h"

namespace {

constexpr const char* ClassName = "CNfcNetlink";
constexpr const char* FamilyName = "nfc";
constexpr const char* EventGroup = "events";
constexpr uint8_t FamilyVersion = 1;
constexpr uint32_t ReaderIndex = 0;

/// Everything that the reader can initiate but Jewel. The reader is never polled as a target.
constexpr uint32_t PollingMask = NFC_PROTO_MIFARE_MASK | NFC_PROTO_FELICA_MASK | NFC_PROTO_ISO14443_MASK |
                                 NFC_PROTO_NFC_DEP_MASK | NFC_PROTO_ISO14443_B_MASK | NFC_PROTO_ISO15693_MASK;
static_assert(PollingMask == 0xFC);

/// One request and its answer.
struct Exchange {
  const std::chrono::milliseconds patience;  ///< with messages that are no answer
  int error = 0;
  int done = 0;
  uint32_t sequence = 0;
  bool over = false;  ///< there is no patience left
  std::optional<std::chrono::steady_clock::time_point> end{};

  /// Messages that are no answer may keep coming. The time runs from the first of them, not from the request:
  /// a process that was not scheduled for a while still takes the answer that waits for it.
  void TakeNoAnswer() {
    const auto now = std::chrono::steady_clock::now();
    end = end.value_or(now + patience);
    over = now > *end;
  }
};

int OnError(sockaddr_nl*, nlmsgerr* err, void* arg) {
  auto& error = *static_cast<int*>(arg);
  error = std::max(err->error, -INT_MAX);
  if (error == -EALREADY) {
    LOG_DEBUG("Error handler got: {}", std::strerror(EALREADY));
  } else {
    LOG_ERROR("Error handler got: {}", std::strerror(std::abs(error)));
  }
  return NL_SKIP;
}

int OnFinish(nl_msg*, void* arg) {
  *static_cast<int*>(arg) = 1;
  return NL_SKIP;
}

int OnAck(nl_msg*, void* arg) {
  *static_cast<int*>(arg) = 1;
  return NL_STOP;
}

/// Lets only the answer to this request through: what an earlier, abandoned exchange left behind, or another
/// process sent, must not be taken for it.
int CheckAnswer(nl_msg* msg, void* arg) {
  auto& exchange = *static_cast<Exchange*>(arg);
  if (!IsFromKernel(msg) || nlmsg_hdr(msg)->nlmsg_seq != exchange.sequence) {
    LOG_DEBUG("Skipping a netlink message that does not answer the request: port {}, sequence {}.",
              nlmsg_get_src(msg)->nl_pid, nlmsg_hdr(msg)->nlmsg_seq);
    exchange.TakeNoAnswer();
    return exchange.over ? NL_STOP : NL_SKIP;
  }
  return NL_OK;
}

/// Events carry no sequence numbers of ours.
int AcceptSequence(nl_msg*, void*) {
  return NL_OK;
}

struct GroupSearch {
  const char* group;
  int id;
};

int OnFamily(nl_msg* msg, void* arg) {
  auto& search = *static_cast<GroupSearch*>(arg);
  if (const auto id = DecodeMulticastGroup(nlmsg_hdr(msg), search.group)) {
    search.id = static_cast<int>(*id);
  }
  return NL_SKIP;
}

struct DeviceSearch {
  bool found = false;
  NfcDeviceInfo device;
};

int OnDevice(nl_msg* msg, void* arg) {
  auto& search = *static_cast<DeviceSearch*>(arg);
  auto device = DecodeDevice(nlmsg_hdr(msg));
  if (!device) {
    LOG_ERROR("Missing NFC_ATTRs in NFC_CMD_GET_DEVICE");
    nl_perror(NLE_MISSING_ATTR, "NFC_CMD_GET_DEVICE");
    return NL_STOP;
  }
  search = {true, std::move(*device)};
  return NL_SKIP;
}

const char* OnOff(bool on) {
  return on ? "on" : "off";
}

}  // namespace

CNfcNetlink::CNfcNetlink(std::chrono::milliseconds answerTimeout) : mAnswerTimeout(answerTimeout) {
  LOG_TRACE("{}::{}", ClassName, "CNfcNetlink");
}

CNfcNetlink::~CNfcNetlink() {
  mStopFlag = true;
  JoinMonitor();
  if (mCommandSocket && mDeviceInfo && mDeviceInfo->powered) {
    // The process ends with the reader on: closing the socket would end polling but leave the power on.
    const std::lock_guard exchange(mExchangeMutex);
    StopEarlierPolling();
    SetDevicePower(false);
  }
}

// ---- Life cycle
// -------------------------------------------------------------------------------------------------

void CNfcNetlink::InitializeController(TargetCallback onTarget, ErrorCallback onError) {
  LOG_TRACE("{}::{}", ClassName, __func__);
  CloseEarlierController();
  mTargetCallback = std::move(onTarget);
  mErrorCallback = std::move(onError);
  try {
    const std::lock_guard exchange(mExchangeMutex);
    OpenController();
  } catch (const CRfidError&) {
    mClosedSockets.Close(std::move(mCommandSocket));
    throw;
  }
  LOG_DEBUG("NFC GENL initialization complete, starting event monitor.");
  {
    const std::lock_guard lock(mMutex);
    mEventSocketReady = false;
    mSetUpDone = false;
    mMonitorStarted = true;
  }
  mWakeEvent.Reset();
  mStopFlag = false;
  try {
    mMonitorThread = std::thread(&CNfcNetlink::MonitorEvents, this);
  } catch (const std::system_error& e) {
    const std::lock_guard lock(mMutex);
    mEventSocketReady = mSetUpDone = true;  // there is no monitor to wait for
    mClosedSockets.Close(std::move(mCommandSocket));
    throw CRfidError(std::string("Could not start the event monitor: ") + e.what(), NLE_FAILURE);
  }
}

void CNfcNetlink::OpenController() {
  mCommandSocket.reset(nl_socket_alloc());
  if (!mCommandSocket) {
    throw CRfidError("Could not allocate netlink command socket.", NLE_NOMEM);
  }
  if (const int result = genl_connect(mCommandSocket.get()); result != 0) {
    throw CRfidError("Could not connect to generic netlink.", std::abs(result));
  }
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(mAnswerTimeout);
  const auto rest = std::chrono::duration_cast<std::chrono::microseconds>(mAnswerTimeout - seconds);
  timeval timeout{};
  timeout.tv_sec = static_cast<decltype(timeout.tv_sec)>(seconds.count());
  timeout.tv_usec = static_cast<decltype(timeout.tv_usec)>(rest.count());
  if (setsockopt(nl_socket_get_fd(mCommandSocket.get()), SOL_SOCKET, SO_RCVTIMEO, &timeout,
                 sizeof(timeout)) != 0) {
    LOG_WARNING("Could not set the receive timeout of the command socket: {}", std::strerror(errno));
  }

  mFamilyId = genl_ctrl_resolve(mCommandSocket.get(), FamilyName);
  if (mFamilyId < 0) {
    throw CRfidError("Could not resolve nfc netlink family.", std::abs(mFamilyId));
  }
  mMulticastGroupId = ResolveMulticastId(mCommandSocket.get());
  if (mMulticastGroupId <= 0) {
    throw CRfidError("Could not resolve nfc multicast id.", std::abs(mMulticastGroupId));
  }
  LOG_DEBUG("NFC Netlink MCast ID: {}", mMulticastGroupId);
  if (const int result = GetNfcDevice(); result != 0) {
    throw CRfidError("Could find trf7970a reader.", result);
  }
}

/// Ends what an earlier opening left: the monitor, polling that may still be ours, the command socket.
void CNfcNetlink::CloseEarlierController() {
  if (mMonitorThread.joinable()) {
    LOG_DEBUG("Controller is open, stopping the earlier event monitor.");
    if (const int result = StopMonitoringEvents(); result != 0) {
      throw CRfidError("Failed to stop event monitor", result);
    }
  }
  const std::lock_guard exchange(mExchangeMutex);
  if (mCommandSocket && mDeviceInfo) {
    StopEarlierPolling();
  }
  if (mCommandSocket) {
    LOG_DEBUG("Releasing the earlier command socket.");
    mClosedSockets.Close(std::move(mCommandSocket));
  }
  mPollingWanted = false;
  mPolling = false;
}

/// Best effort: closing the socket alone would end polling too, but some moments later, so that the next
/// start could find it still on.
void CNfcNetlink::StopEarlierPolling() {
  try {
    const bool wasPolling = SendStopPoll();
    LOG_DEBUG("Earlier polling: {}.", wasPolling ? "stopped" : "there was none");
  } catch (const CRfidError& e) {
    LOG_DEBUG("Could not stop the earlier polling: {} rc: {}.", e.what(), e.GetErrorCode());
  }
}

void CNfcNetlink::StartPolling() {
  Poll(EPollReason::Wanted);
}

void CNfcNetlink::Poll(EPollReason reason) {
  LOG_TRACE("{}::{}", ClassName, "StartPolling");
  bool haveEventSocket = false;
  {
    std::unique_lock lock(mMutex);
    // A tag that is found before the monitor listens would be lost, and polling would be over without anybody
    // knowing.
    mReadySignal.wait(lock, [this] { return (mEventSocketReady && mSetUpDone) || !mMonitorStarted; });
    haveEventSocket = mEventSocket != nullptr;
  }
  LOG_DEBUG("Done waiting for event socket");

  const std::lock_guard exchange(mExchangeMutex);
  if (reason == EPollReason::AfterTarget && (!mPollingWanted || mStopFlag)) {
    LOG_DEBUG("Polling is not wanted any more, not restarting it.");
    return;
  }
  if (!mCommandSocket || !haveEventSocket) {
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
  // The kernel says busy when it polls already, but also when the poll is dead or another's: a success only
  // when the polling is ours.
  if (result == EALREADY || (result == EBUSY && mPolling)) {
    LOG_DEBUG("Reader is already polling.");
  } else if (result != 0) {
    throw CRfidError("Error in SendAndReceiveMsgs within StartPolling", result);
  }
  mPolling = true;
  mPollingWanted = true;
  LOG_INFO("Polling started.");
}

void CNfcNetlink::StopPolling() {
  LOG_TRACE("{}::{}", ClassName, __func__);
  LOG_DEBUG("Stopping polling.");
  const std::lock_guard exchange(mExchangeMutex);
  mPollingWanted = false;
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

/// The exchange's result: 0 or a positive code.
int CNfcNetlink::SendStartPoll() {
  const NlMessage message(nlmsg_alloc());
  if (!message) {
    throw CRfidError("Could not allocate netlink socket", NLE_NOMEM);
  }
  if (!PutHeader(message.get(), NLM_F_REQUEST, NFC_CMD_START_POLL)) {
    throw CRfidError("Null header in genlmsg_put within StartPolling", NLE_INVAL);
  }
  nla_put_u32(message.get(), NFC_ATTR_DEVICE_INDEX, mDeviceInfo->index);
  nla_put_u32(message.get(), NFC_ATTR_IM_PROTOCOLS, PollingMask);
  nla_put_u32(message.get(), NFC_ATTR_PROTOCOLS, PollingMask);
  return SendAndReceiveMsg(mCommandSocket.get(), message.get(), nullptr, nullptr);
}

/// Ends the kernel's polling; false when it did not poll, which the kernel says by EALREADY or, as it really
/// does, by EINVAL.
bool CNfcNetlink::SendStopPoll() {
  const NlMessage message(nlmsg_alloc());
  if (!message) {
    throw CRfidError("Could not allocate netlink socket", NLE_NOMEM);
  }
  if (!PutHeader(message.get(), NLM_F_REQUEST, NFC_CMD_STOP_POLL)) {
    throw CRfidError("Null header in genlmsg_put within StopPolling", NLE_INVAL);
  }
  nla_put_u32(message.get(), NFC_ATTR_DEVICE_INDEX, mDeviceInfo->index);
  const int result = SendAndReceiveMsg(mCommandSocket.get(), message.get(), nullptr, nullptr);
  const bool wasPolling = result == 0;
  if (!wasPolling && result != EALREADY && result != EINVAL) {
    throw CRfidError("Error in SendAndReceiveMsgs in StopPolling.", result);
  }
  mPolling = false;
  return wasPolling;
}

void CNfcNetlink::DeinitializeController() {
  LOG_TRACE("{}::{}", ClassName, __func__);
  if (const int result = StopMonitoringEvents(); result != 0) {
    throw CRfidError("Failed to stop event monitor", result);
  }
  LOG_DEBUG("Event monitor stopped.");
  const std::lock_guard exchange(mExchangeMutex);
  mPollingWanted = false;
  mPolling = false;
  if (mCommandSocket) {
    LOG_TRACE("Freeing NFC command socket");
    mClosedSockets.Close(std::move(mCommandSocket));
  }
  if (mDeviceInfo) {
    LOG_TRACE("Clearing {} device info", mDeviceInfo->name);
    mDeviceInfo.reset();
  }
  LOG_INFO("NFC controller deinitialized");
}

// ---- Requests
// ---------------------------------------------------------------------------------------------------

/// Begins a request to the "nfc" family; false when the message has no room for the header.
bool CNfcNetlink::PutHeader(nl_msg* message, int flags, uint8_t command) const {
  return genlmsg_put(message, NL_AUTO_PORT, NL_AUTO_SEQ, mFamilyId, 0, flags, command, FamilyVersion) !=
         nullptr;
}

int CNfcNetlink::SendAndReceiveMsg(nl_sock* socket, nl_msg* request, nl_recvmsg_msg_cb_t validHandler,
                                   void* handlerArgument) {
  LOG_TRACE("{}::{}", ClassName, __func__);
  Exchange exchange{.patience = mAnswerTimeout};
  const NlCallbacks callbacks(nl_cb_alloc(NL_CB_DEFAULT));
  if (!callbacks) {
    LOG_ERROR("Could not allocate netlink callback.");
    return NLE_NOMEM;
  }
  if (const int result = nl_send_auto(socket, request); result < 0) {
    LOG_ERROR("Could not send netlink message. Error: {}", nl_geterror(result));
    return -result;
  }
  exchange.sequence = nlmsg_hdr(request)->nlmsg_seq;
  nl_cb_err(callbacks.get(), NL_CB_CUSTOM, OnError, &exchange.error);
  nl_cb_set(callbacks.get(), NL_CB_FINISH, NL_CB_CUSTOM, OnFinish, &exchange.done);
  nl_cb_set(callbacks.get(), NL_CB_ACK, NL_CB_CUSTOM, OnAck, &exchange.done);
  nl_cb_set(callbacks.get(), NL_CB_SEQ_CHECK, NL_CB_CUSTOM, CheckAnswer, &exchange);
  if (validHandler != nullptr) {
    nl_cb_set(callbacks.get(), NL_CB_VALID, NL_CB_CUSTOM, validHandler, handlerArgument);
  }
  while (exchange.error == 0 && exchange.done == 0) {
    int result = nl_recvmsgs_report(socket, callbacks.get());
    if (result == 0) {
      DropEmptyDatagram(socket);
      exchange.TakeNoAnswer();
    }
    if (result >= 0 && exchange.over && exchange.error == 0 && exchange.done == 0) {
      result = -NLE_AGAIN;
    }
    if (result < 0) {
      LOG_ERROR("Error receiving netlink message. Return code: {}.", nl_geterror(result));
      // No answer within the time, or a list that changed while it was read: opening the controller anew may
      // help, so the code says recoverable.
      return result == -NLE_AGAIN || result == -NLE_DUMP_INTR ? NLE_FAILURE : -result;
    }
  }
  return std::abs(exchange.error);
}

int CNfcNetlink::ResolveMulticastId(nl_sock* socket) {
  LOG_TRACE("{}::{}", ClassName, __func__);
  const NlMessage message(nlmsg_alloc());
  if (!message) {
    LOG_ERROR("Couldn't allocate netlink message struct. No memory available.");
    return -NLE_NOMEM;
  }
  const int controller = genl_ctrl_resolve(socket, "nlctrl");
  if (controller < 0) {
    LOG_ERROR("Could not resolve the generic netlink controller: {}", nl_geterror(controller));
    return controller;
  }
  if (genlmsg_put(message.get(), NL_AUTO_PORT, NL_AUTO_SEQ, controller, 0, 0, CTRL_CMD_GETFAMILY, 0) ==
      nullptr) {
    LOG_ERROR("Null header when creating genl message.");
    return -NLE_INVAL;
  }
  nla_put_string(message.get(), CTRL_ATTR_FAMILY_NAME, FamilyName);
  GroupSearch search{EventGroup, -NLE_OBJ_NOTFOUND};
  if (const int result = SendAndReceiveMsg(socket, message.get(), OnFamily, &search); result != 0) {
    LOG_ERROR("Error in SendAndReceiveMessages within ResolveMulticastId.");
    return -result;
  }
  return search.id;
}

int CNfcNetlink::GetNfcDevice() {
  LOG_TRACE("{}::{}", ClassName, __func__);
  const NlMessage message(nlmsg_alloc());
  if (!message) {
    LOG_ERROR("Error allocating struct nl_msg.");
    return NLE_NOMEM;
  }
  if (!PutHeader(message.get(), NLM_F_DUMP, NFC_CMD_GET_DEVICE)) {
    LOG_ERROR("Error: genlmsg_put returned null netlink header.");
    return NLE_INVAL;
  }
  DeviceSearch search;
  if (const int result = SendAndReceiveMsg(mCommandSocket.get(), message.get(), OnDevice, &search);
      result != 0) {
    LOG_ERROR("Error: Failed to send and receive NFC_CMD_GET_DEVICE.");
    return result;
  }
  if (!search.found) {
    LOG_ERROR("Error: The kernel has no NFC device.");
    return NLE_NODEV;
  }
  if (search.device.index != ReaderIndex) {
    LOG_ERROR("Error: Unexpected device at index: {}", search.device.index);
    return NLE_NODEV;
  }
  mDeviceInfo = std::move(search.device);
  LOG_INFO("Found NFC Device {}", mDeviceInfo->name);
  return 0;
}

int CNfcNetlink::SetDevicePower(bool on) {
  if (!mCommandSocket) {
    LOG_ERROR("Netlink sockets not initialized. Initialize controller first.");
    return NLE_BAD_SOCK;
  }
  if (!mDeviceInfo) {
    LOG_ERROR("No device to power on/off. Initialize controller to find device.");
    return NLE_NODEV;
  }
  LOG_INFO("Setting {} power mode to: {}", mDeviceInfo->name, OnOff(on));
  const NlMessage message(nlmsg_alloc());
  if (!message) {
    LOG_ERROR("Error allocating nl_msg. No memory available.");
    return NLE_NOMEM;
  }
  if (!PutHeader(message.get(), 0, on ? NFC_CMD_DEV_UP : NFC_CMD_DEV_DOWN)) {
    LOG_ERROR("Null header in genlmsg_put within SetDevicePower().");
    return NLE_NOMEM;
  }
  nla_put_u32(message.get(), NFC_ATTR_DEVICE_INDEX, mDeviceInfo->index);
  const int result = SendAndReceiveMsg(mCommandSocket.get(), message.get(), nullptr, nullptr);
  if (result == EALREADY) {
    LOG_DEBUG("Reader is already powered {}.", OnOff(on));
  } else if (result != 0) {
    LOG_ERROR("SetDevicePower got: {}", nl_geterror(result));
    return result;
  }
  mDeviceInfo->powered = on;
  return 0;
}

// ---- Events
// -----------------------------------------------------------------------------------------------------

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
