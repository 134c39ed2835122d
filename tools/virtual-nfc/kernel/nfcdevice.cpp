#include "tools/virtual-nfc/kernel/nfcdevice.h"

#include <fmt/format.h>

#include <cerrno>

namespace virtualnfc {

/// Maximum number of targets that the kernel keeps from one find.
constexpr std::size_t kMaxTargets = 10;

/// Digital readers do not support Jewel, Nci readers do not support NFC-DEP.
constexpr std::uint32_t kDigitalProtocols = 0xfc;
constexpr std::uint32_t kNciProtocols = 0xde;

const std::vector<std::string>& FaultNames() {
  static const std::vector<std::string> kNames{"poll-dead", "deaf", "out-of-step", "chip-polls"};
  return kNames;
}

Fault ParseFault(std::string_view name) {
  return static_cast<Fault>(IndexOf("fault", name, FaultNames()));
}

NfcDevice::NfcDevice(std::uint32_t index, Stack stack, bool assumeAlready)
    : mStack(stack), mAssumeAlready(assumeAlready) {
  mStatus.index = index;
  mStatus.name = fmt::format("nfc{}", index);
}

std::uint32_t NfcDevice::Protocols() const {
  return mStack == Stack::Nci ? kNciProtocols : kDigitalProtocols;
}

int NfcDevice::PowerUp() {
  if (mStatus.removed || mStatus.powered) {
    return mStatus.removed ? ENODEV : EALREADY;
  }
  mStatus.powered = true;
  return 0;
}

int NfcDevice::PowerDown() {
  if (mStatus.removed || !mStatus.powered) {
    return mStatus.removed ? ENODEV : EALREADY;
  }
  if (mStatus.polling) {
    return EBUSY;
  }
  mStatus.powered = false;
  SetFault(Fault::OutOfStep, false);
  SetFault(Fault::ChipPolls, false);
  return 0;
}

int NfcDevice::CheckStartPoll(std::uint32_t mask) const {
  if (mStatus.removed || !mStatus.powered) {
    return ENODEV;
  }
  if (mStatus.polling) {
    return mAssumeAlready ? EALREADY : EBUSY;
  }
  if (Has(Fault::OutOfStep)) {
    return EBUSY;
  }
  if (Has(Fault::ChipPolls)) {
    return EALREADY;
  }
  return mStack == Stack::Nci || (mask & Protocols()) != 0 ? 0 : EINVAL;
}

int NfcDevice::StartPoll(std::uint32_t port, std::uint32_t mask) {
  const int error = CheckStartPoll(mask);
  if (error == 0) {
    mStatus.polling = true;
    mStatus.ownerPort = port;
    mStatus.mask = mask;
    ++mPollId;
  }
  return error;
}

int NfcDevice::CheckStopPoll(std::uint32_t port) const {
  if (!mStatus.polling) {
    return mAssumeAlready ? EALREADY : EINVAL;
  }
  if (mStatus.ownerPort != port) {
    return EBUSY;
  }
  return mStatus.removed ? ENODEV : 0;
}

int NfcDevice::StopPoll(std::uint32_t port) {
  const int error = CheckStopPoll(port);
  if (error == 0) {
    EndPoll();
  }
  return error;
}

void NfcDevice::SetFault(Fault fault, bool on) {
  if (on && (fault == Fault::OutOfStep || fault == Fault::ChipPolls)) {
    EndPoll();
  }
  std::erase(mStatus.faults, fault);
  if (on && (mStatus.polling || fault != Fault::PollDead)) {
    mStatus.faults.push_back(fault);
  }
}

/// Returns the tags in front of the reader that become targets.
std::vector<Tag> NfcDevice::KnownOf(std::vector<Tag> seen) const {
  if (mStack == Stack::Nci) {
    std::erase_if(seen, [this](const Tag& tag) { return (tag.protocols & mStatus.mask) == 0; });
    seen.resize(std::min(seen.size(), kMaxTargets));
    return seen;
  }
  // A Digital reader looks for one technology at a time, and cannot tell apart two tags of the same one.
  for (const Tag& tag : seen) {
    const auto sameRadio = [&tag](const Tag& other) { return other.radio == tag.radio; };
    if (tag.protocols != 0 && std::count_if(seen.begin(), seen.end(), sameRadio) == 1) {
      return {tag};
    }
  }
  return {};
}

bool NfcDevice::Detect(const std::vector<Tag>& field) {
  if (!mStatus.polling || mStatus.removed || Has(Fault::PollDead) || Has(Fault::Deaf)) {
    return false;
  }
  const std::uint32_t mask = mStack == Stack::Nci ? mStatus.mask : mStatus.mask & Protocols();
  std::vector<Tag> seen = field;
  std::erase_if(seen, [mask](const Tag& tag) { return !IsPolled(mask, tag.radio); });
  const std::size_t count = seen.size();
  std::vector<Tag> known = KnownOf(std::move(seen));
  if (known.empty() && (count < 2 || mStack == Stack::Digital)) {
    SetFault(Fault::PollDead, count == 1 && mStack == Stack::Nci);
    return false;
  }
  mTargets.clear();
  for (Tag& tag : known) {
    mTargets.push_back({mStatus.targetsFound++, std::move(tag)});
  }
  EndPoll();
  return true;
}

void NfcDevice::EndPoll() {
  mStatus.polling = false;
  SetFault(Fault::PollDead, false);
  mStatus.ownerPort = 0;
  mStatus.mask = 0;
}

}  // namespace virtualnfc
