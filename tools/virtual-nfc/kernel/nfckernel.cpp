#include "tools/virtual-nfc/kernel/nfckernel.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace virtualnfc {

namespace {

/// The protocols a START_POLL asks for; 0 when it names none.
std::uint32_t MaskOf(const Request& request) {
  const auto initiator = GetU32(request.attributes, NFC_ATTR_IM_PROTOCOLS);
  return initiator ? *initiator : GetU32(request.attributes, NFC_ATTR_PROTOCOLS).value_or(0);
}

/// The kernel checks the lengths of numbers before it looks at the command.
bool HasShortNumber(const Request& request) {
  for (const std::uint16_t type : {NFC_ATTR_DEVICE_INDEX, NFC_ATTR_PROTOCOLS, NFC_ATTR_IM_PROTOCOLS}) {
    if (request.attributes.contains(type) && !GetU32(request.attributes, type)) {
      return true;
    }
  }
  return false;
}

}  // namespace

NfcKernel::NfcKernel(KernelSettings settings) : mSettings(std::move(settings)) {}

NfcKernel::Result NfcKernel::Handle(const Request& request, std::uint32_t port) {
  // A message without the request flag, or with a type below the families: the kernel only acknowledges it,
  // if asked to.
  if ((request.header.nlmsg_flags & NLM_F_REQUEST) == 0 || request.header.nlmsg_type < NLMSG_MIN_TYPE) {
    return Acknowledge(request, port, 0, {});
  }
  const bool isController = request.header.nlmsg_type == GENL_ID_CTRL;
  if (!isController && request.header.nlmsg_type != mSettings.familyId) {
    return Refuse(request, port, ENOENT);
  }
  if (!request.hasGenlHeader) {
    return Refuse(request, port, EINVAL);
  }
  return isController ? HandleController(request, port) : HandleNfc(request, port);
}

NfcKernel::Result NfcKernel::Acknowledge(const Request& request, std::uint32_t port, int error,
                                         Result result) const {
  result.error = error;
  if (error != 0 || request.WantsAck()) {
    result.answer.messages.push_back(MakeErrorMessage(request, port, error));
  }
  return result;
}

std::optional<Occurrence> NfcKernel::Classify(const Request& request) const {
  if ((request.header.nlmsg_flags & NLM_F_REQUEST) == 0 || !request.hasGenlHeader) {
    return std::nullopt;
  }
  Occurrence occurrence;
  if (request.header.nlmsg_type == GENL_ID_CTRL) {
    occurrence.family = Family::Controller;
  } else if (request.header.nlmsg_type != mSettings.familyId) {
    return std::nullopt;
  }
  occurrence.command = request.genl.cmd;
  if (occurrence.family == Family::Nfc) {
    occurrence.device = GetU32(request.attributes, NFC_ATTR_DEVICE_INDEX);
  }
  return occurrence;
}

NfcKernel::Result NfcKernel::HandleController(const Request& request, std::uint32_t port) const {
  if (request.genl.cmd != CTRL_CMD_GETFAMILY) {
    return Refuse(request, port, EOPNOTSUPP);
  }
  Result result;
  if (request.IsDump()) {
    result.answer.messages = {FamilyMessage(request, NLM_F_MULTI, port, GENL_ID_CTRL),
                              FamilyMessage(request, NLM_F_MULTI, port, mSettings.familyId),
                              MakeDoneMessage(request, port, 0)};
    return result;
  }
  const auto name = request.attributes.find(CTRL_ATTR_FAMILY_NAME);
  std::uint16_t wanted = Get<std::uint16_t>(request.attributes, CTRL_ATTR_FAMILY_ID).value_or(0);
  if (name != request.attributes.end()) {
    std::string text(name->second.begin(), name->second.end());
    text.resize(std::min(text.find('\0'), text.size()));
    wanted = text == "nlctrl"        ? std::uint16_t{GENL_ID_CTRL}
             : text == NFC_GENL_NAME ? mSettings.familyId
                                     : std::uint16_t{0};
  } else if (!request.attributes.contains(CTRL_ATTR_FAMILY_ID)) {
    return Refuse(request, port, EINVAL);
  }
  if (wanted != GENL_ID_CTRL && wanted != mSettings.familyId) {
    return Refuse(request, port, ENOENT);
  }
  result.answer.messages.push_back(FamilyMessage(request, 0, port, wanted));
  return Acknowledge(request, port, 0, std::move(result));
}

Bytes NfcKernel::FamilyMessage(const Request& request, std::uint16_t flags, std::uint32_t port,
                               std::uint16_t familyId) const {
  const bool isController = familyId == GENL_ID_CTRL;
  MessageBuilder message(GENL_ID_CTRL, flags, request.header.nlmsg_seq, port);
  message.Genl(CTRL_CMD_NEWFAMILY, 2)
      .String(CTRL_ATTR_FAMILY_NAME, isController ? "nlctrl" : NFC_GENL_NAME)
      .U16(CTRL_ATTR_FAMILY_ID, familyId)
      .U32(CTRL_ATTR_VERSION, isController ? 2 : NFC_GENL_VERSION)
      .U32(CTRL_ATTR_HDRSIZE, 0)
      .U32(CTRL_ATTR_MAXATTR, isController ? 0 : NFC_ATTR_MAX);

  const std::size_t list = message.Begin(CTRL_ATTR_OPS);
  std::uint16_t entry = 1;
  for (const Command& command : kCommands) {
    if (command.family == (isController ? Family::Controller : Family::Nfc) && command.flags != 0) {
      const std::size_t one = message.Begin(entry++);
      message.U32(CTRL_ATTR_OP_ID, command.number).U32(CTRL_ATTR_OP_FLAGS, command.flags);
      message.End(one);
    }
  }
  message.End(list);

  const std::size_t groups = message.Begin(CTRL_ATTR_MCAST_GROUPS);
  const std::size_t group = message.Begin(1);
  message.U32(CTRL_ATTR_MCAST_GRP_ID, isController ? kControllerGroupId : mSettings.groupId)
      .String(CTRL_ATTR_MCAST_GRP_NAME, isController ? std::string("notify") : mSettings.groupName);
  message.End(group);
  message.End(groups);
  return message.Finish();
}

NfcKernel::Result NfcKernel::HandleNfc(const Request& request, std::uint32_t port) {
  const std::uint32_t way = request.IsDump() ? GENL_CMD_CAP_DUMP : GENL_CMD_CAP_DO;
  if (std::none_of(std::begin(kCommands), std::end(kCommands), [&](const Command& command) {
        return command.family == Family::Nfc && command.number == request.genl.cmd &&
               (command.flags & way) != 0;
      })) {
    return Refuse(request, port, EOPNOTSUPP);
  }
  if (HasShortNumber(request)) {
    return Refuse(request, port, ERANGE);
  }
  if (request.IsDump()) {
    return HandleDump(request, port);
  }
  Result result;
  const int error = Execute(request, port, result);
  return Acknowledge(request, port, error, std::move(result));
}

NfcKernel::Result NfcKernel::HandleDump(const Request& request, std::uint32_t port) {
  Result result;
  std::vector<Bytes>& messages = result.answer.messages;
  if (request.genl.cmd == NFC_CMD_GET_DEVICE) {
    for (const auto& device : mDevices) {
      messages.push_back(PutDevice(Reply(request, NLM_F_MULTI, port), *device));
    }
  } else if (request.genl.cmd == NFC_CMD_GET_TARGET) {
    const NfcDevice* device = DeviceOf(request);
    if (device == nullptr) {
      result.error = GetU32(request.attributes, NFC_ATTR_DEVICE_INDEX) ? ENODEV : EINVAL;
    } else {
      for (const Target& target : device->Targets()) {
        MessageBuilder message = Reply(request, NLM_F_MULTI, port);
        message.U32(NFC_ATTR_TARGET_INDEX, target.index);
        for (const auto& [type, value] : target.tag.attributes) {
          message.Raw(type, value);
        }
        messages.push_back(message.Finish());
      }
    }
  } else {
    return Refuse(request, port, EOPNOTSUPP);
  }
  // The end of a dump carries its error, and is never followed by an acknowledgement.
  messages.push_back(MakeDoneMessage(request, port, result.error));
  return result;
}

int NfcKernel::Execute(const Request& request, std::uint32_t port, Result& result) {
  const auto index = GetU32(request.attributes, NFC_ATTR_DEVICE_INDEX);
  if (!index || (request.genl.cmd == NFC_CMD_START_POLL && MaskOf(request) == 0)) {
    return EINVAL;
  }
  NfcDevice* device = FindDevice(*index);
  if (device == nullptr) {
    return ENODEV;
  }
  switch (request.genl.cmd) {
    case NFC_CMD_GET_DEVICE:
      result.answer.messages.push_back(PutDevice(Reply(request, 0, port), *device));
      return 0;
    case NFC_CMD_DEV_UP:
      return device->PowerUp();
    case NFC_CMD_DEV_DOWN:
      return device->PowerDown();
    case NFC_CMD_START_POLL: {
      const int error = device->StartPoll(port, MaskOf(request));
      if (error == 0) {
        result.startedPoll = *index;
      }
      return error;
    }
    case NFC_CMD_STOP_POLL:
      return device->StopPoll(port);
    default:
      // The family lists more commands; this reader supports none of them.
      return EOPNOTSUPP;
  }
}

int NfcKernel::ErrorOfVanishedChip(const Request& request, std::optional<std::uint32_t> device) {
  if (mSettings.stack != Stack::Nci || !NeedsChip(request) || !device ||
      GetU32(request.attributes, NFC_ATTR_DEVICE_INDEX) != device) {
    return 0;
  }
  const NfcDevice* found = FindDevice(*device);
  return found == nullptr || found->Status().removed ? ETIMEDOUT : 0;
}

bool NfcKernel::IsOneOf(const Request& request, std::initializer_list<int> commands) {
  return request.header.nlmsg_type != GENL_ID_CTRL &&
         std::find(commands.begin(), commands.end(), request.genl.cmd) != commands.end();
}

bool NfcKernel::IsInterruptible(const Request& request) const {
  return mSettings.stack == Stack::Nci && UsesDevice(request);
}

bool NfcKernel::CanCross(const Request& request, std::uint32_t port) {
  const NfcDevice* device = DeviceOf(request);
  return mSettings.stack == Stack::Nci && IsOneOf(request, {NFC_CMD_STOP_POLL}) && device != nullptr &&
         device->CheckStopPoll(port) == 0;
}

NfcKernel::Result NfcKernel::Interrupt(const Request& request, std::uint32_t port) {
  NfcDevice* device = DeviceOf(request);
  if (device == nullptr || !NeedsChip(request)) {
    return Handle(request, port);
  }
  if (request.genl.cmd == NFC_CMD_START_POLL) {
    const std::uint32_t mask = MaskOf(request);
    if (mask == 0 || device->CheckStartPoll(mask) != 0) {
      return Handle(request, port);
    }
    // The chip polls without the kernel's knowledge.
    device->SetFault(Fault::OutOfStep);
  } else if (device->Status().powered || device->Status().removed) {
    return Handle(request, port);
  }
  return Refuse(request, port, kRestartSys);
}

MessageBuilder NfcKernel::Reply(const Request& request, std::uint16_t flags, std::uint32_t port) const {
  MessageBuilder message(mSettings.familyId, flags, request.header.nlmsg_seq, port);
  message.Genl(request.genl.cmd, NFC_GENL_VERSION);
  return message;
}

Bytes NfcKernel::PutDevice(MessageBuilder message, const NfcDevice& device) {
  return message.String(NFC_ATTR_DEVICE_NAME, device.Status().name)
      .U32(NFC_ATTR_DEVICE_INDEX, device.Index())
      .U32(NFC_ATTR_PROTOCOLS, device.Protocols())
      .U8(NFC_ATTR_DEVICE_POWERED, device.Status().powered ? 1 : 0)
      .U8(NFC_ATTR_RF_MODE, NFC_RF_NONE)
      .Finish();
}

NfcDevice* NfcKernel::FindDevice(std::uint32_t index) {
  for (const auto& device : mDevices) {
    if (device->Index() == index) {
      return device.get();
    }
  }
  return nullptr;
}

NfcDevice* NfcKernel::DeviceOf(const Request& request) {
  const auto index = GetU32(request.attributes, NFC_ATTR_DEVICE_INDEX);
  return index ? FindDevice(*index) : nullptr;
}

Bytes NfcKernel::Event(std::uint8_t event, std::uint32_t index) {
  MessageBuilder message(mSettings.familyId, 0, 0, 0);
  message.Genl(event, NFC_GENL_VERSION);
  return event == NFC_EVENT_DEVICE_ADDED ? PutDevice(std::move(message), *FindDevice(index))
                                         : message.U32(NFC_ATTR_DEVICE_INDEX, index).Finish();
}

}  // namespace virtualnfc
