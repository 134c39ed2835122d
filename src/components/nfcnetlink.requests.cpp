// The requests to the kernel and what their answers mean.

#include <linux/genetlink.h>
#include <linux/nfc.h>
#include <netlink/errno.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "framework/log.h"
#include "src/components/nfcnetlink.h"
#include "src/components/nfcrequests.h"
#include "src/components/nlexchange.h"

using namespace std::chrono_literals;

namespace {

constexpr const char* kClassName = "CNfcNetlink";
constexpr const char* kFamilyName = "nfc";
constexpr const char* kEventGroup = "events";

/// All protocols but Jewel. The reader never acts as a target itself.
constexpr uint32_t kPollingMask = NFC_PROTO_MIFARE_MASK | NFC_PROTO_FELICA_MASK | NFC_PROTO_ISO14443_MASK |
                                  NFC_PROTO_NFC_DEP_MASK | NFC_PROTO_ISO14443_B_MASK |
                                  NFC_PROTO_ISO15693_MASK;
static_assert(kPollingMask == 0xFC);

/// When a tag comes in the moment of STOP_POLL, the command can wait half a minute for an answer that the
/// kernel never reads. A signal ends the wait. No other command takes a signal well.
constexpr auto kStopLimit = 2s;
/// A STOP_POLL that took longer may have met a tag. The kernel then needs a moment to finish with the tag: a
/// command that comes sooner can hang NFC on the whole machine.
constexpr auto kSlowStop = 1s;
constexpr auto kQuietAfterSlowStop = 250ms;

struct GroupSearch {
  const char* group;
  int id;
};

int OnFamily(nl_msg* msg, void* arg) {
  auto& search = *static_cast<GroupSearch*>(arg);
  const auto id = DecodeMulticastGroup(nlmsg_hdr(msg), search.group);
  if (id && *id > 0 && *id <= INT_MAX) {
    search.id = static_cast<int>(*id);
  }
  return NL_SKIP;
}

int OnDevice(nl_msg* msg, void* arg) {
  auto device = DecodeDevice(nlmsg_hdr(msg));
  if (!device) {
    LOG_ERROR("Missing NFC_ATTRs in NFC_CMD_GET_DEVICE");
    nl_perror(NLE_MISSING_ATTR, "NFC_CMD_GET_DEVICE");
    return NL_STOP;
  }
  *static_cast<std::optional<NfcDeviceInfo>*>(arg) = std::move(device);
  return NL_SKIP;
}

const char* OnOff(bool on) {
  return on ? "on" : "off";
}

}  // namespace

int CNfcNetlink::SendAndReceiveMsg(nl_sock* socket, nl_msg* request, nl_recvmsg_msg_cb_t validHandler,
                                   void* handlerArgument, std::chrono::milliseconds sendLimit) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  using EEnd = ExchangeResult::EEnd;
  const auto result =
      RunExchange(socket, request, mSettings.answerTimeout, validHandler, handlerArgument, sendLimit);
  if (!result.isLimited) {
    LOG_WARNING("No timer for the command. If a tag comes now, stopping can take half a minute.");
  }
  if (result.skipped > 0) {
    LOG_DEBUG("Skipped {} netlink messages that did not answer the request.", result.skipped);
  }
  switch (result.end) {
    case EEnd::Answered:
      break;
    case EEnd::Refused:
      if (result.code == EALREADY) {
        LOG_DEBUG("Error handler got: {}", std::strerror(EALREADY));
      } else {
        LOG_ERROR("Error handler got: {}", std::strerror(result.code));
      }
      break;
    case EEnd::NoMemory:
      LOG_ERROR("Could not allocate netlink callback.");
      break;
    case EEnd::NotSent:
      LOG_ERROR("Could not send netlink message. Error: {}", nl_geterror(result.code));
      break;
    case EEnd::NotAnswered:
      LOG_ERROR("Error receiving netlink message. Return code: {}.", nl_geterror(result.code));
      // A timeout, or a list that changed while it was read. Reopening the controller may help, so the code
      // is a recoverable one.
      return result.code == NLE_AGAIN || result.code == NLE_DUMP_INTR ? NLE_FAILURE : result.code;
  }
  return result.code;
}

int CNfcNetlink::ResolveMulticastId(nl_sock* socket) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  const int controller = genl_ctrl_resolve(socket, "nlctrl");
  if (controller < 0) {
    LOG_ERROR("Could not resolve the generic netlink controller: {}", nl_geterror(controller));
    return controller;
  }
  const auto request = BuildRequest(NfcRequests::kGetFamily, controller);
  if (!request.message) {
    LOG_ERROR("{}", request.failure);
    return -request.code;
  }
  nla_put_string(request.message.get(), CTRL_ATTR_FAMILY_NAME, kFamilyName);
  GroupSearch search{kEventGroup, -NLE_OBJ_NOTFOUND};
  if (const int result = SendAndReceiveMsg(socket, request.message.get(), OnFamily, &search); result != 0) {
    LOG_ERROR("Error in SendAndReceiveMessages within ResolveMulticastId.");
    return -result;
  }
  return search.id;
}

int CNfcNetlink::GetNfcDevice() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  const auto request = BuildRequest(NfcRequests::kGetDevice, mFamilyId);
  if (!request.message) {
    LOG_ERROR("{}", request.failure);
    return request.code;
  }
  std::optional<NfcDeviceInfo> device;
  if (const int result = SendAndReceiveMsg(mCommandSocket.get(), request.message.get(), OnDevice, &device);
      result != 0) {
    LOG_ERROR("Error: Failed to send and receive NFC_CMD_GET_DEVICE.");
    return result;
  }
  if (!device) {
    LOG_ERROR("Error: The kernel has no NFC device.");
    return NLE_NODEV;
  }
  if (device->index != kReaderIndex) {
    LOG_ERROR("Error: Unexpected device at index: {}", device->index);
    return NLE_NODEV;
  }
  mDeviceInfo = std::move(device);
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
  const auto request = BuildRequest(on ? NfcRequests::kDeviceUp : NfcRequests::kDeviceDown, mFamilyId,
                                    {{NFC_ATTR_DEVICE_INDEX, mDeviceInfo->index}});
  if (!request.message) {
    LOG_ERROR("{}", request.failure);
    return request.code;
  }
  mPolling.mayBePowered = true;
  const int result = SendAndReceiveMsg(mCommandSocket.get(), request.message.get());
  if (result == EALREADY) {
    LOG_DEBUG("Reader is already powered {}.", OnOff(on));
  } else if (result != 0) {
    LOG_ERROR("SetDevicePower got: {}", nl_geterror(result));
    return result;
  }
  mDeviceInfo->powered = mPolling.mayBePowered = on;
  return 0;
}

/// Returns 0 or a positive code.
int CNfcNetlink::SendStartPoll() {
  const auto request = BuildRequest(NfcRequests::kStartPoll, mFamilyId,
                                    {{NFC_ATTR_DEVICE_INDEX, mDeviceInfo->index},
                                     {NFC_ATTR_IM_PROTOCOLS, kPollingMask},
                                     {NFC_ATTR_PROTOCOLS, kPollingMask}});
  if (!request.message) {
    throw CRfidError(request.failure, request.code);
  }
  return SendAndReceiveMsg(mCommandSocket.get(), request.message.get());
}

/// Ends the kernel's polling. False when the kernel did not poll, which it says by EINVAL (or EALREADY).
/// Every STOP_POLL of the controller goes through here.
bool CNfcNetlink::SendStopPoll() {
  const auto request =
      BuildRequest(NfcRequests::kStopPoll, mFamilyId, {{NFC_ATTR_DEVICE_INDEX, mDeviceInfo->index}});
  if (!request.message) {
    throw CRfidError(request.failure, request.code);
  }
  const auto begin = std::chrono::steady_clock::now();
  const int result =
      SendAndReceiveMsg(mCommandSocket.get(), request.message.get(), nullptr, nullptr, kStopLimit);
  if (const auto took = std::chrono::steady_clock::now() - begin; took > kSlowStop) {
    LOG_WARNING("Stopping the polling took {} ms.",
                std::chrono::duration_cast<std::chrono::milliseconds>(took).count());
    std::this_thread::sleep_for(kQuietAfterSlowStop);
  }
  const bool wasPolling = result == 0;
  if (!wasPolling && result != EALREADY && result != EINVAL) {
    throw CRfidError("Error in SendAndReceiveMsgs in StopPolling.", result);
  }
  mPolling.ours = false;
  return wasPolling;
}
