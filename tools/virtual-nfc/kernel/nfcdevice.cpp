#include "tools/virtual-nfc/kernel/nfcdevice.h"

#include <fmt/format.h>
#include <linux/nfc.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace virtualnfc {

namespace {

/// The kernel keeps no more targets of one find.
constexpr std::size_t kMaxTargets = 10;

/// Readers of the two kinds: the one knows no Jewel, the other no NFC-DEP.
constexpr std::uint32_t kDigitalProtocols = 0xfc;
constexpr std::uint32_t kNciProtocols = 0xde;

/// In the order of Fault.
constexpr std::string_view kFaultNames[] = {"poll-dead",  "deaf",    "out-of-step",
                                            "chip-polls", "runaway", "target-active"};

}  // namespace

Fault ParseFault(std::string_view name) {
  const auto* found = std::find(std::begin(kFaultNames), std::end(kFaultNames), name);
  if (found == std::end(kFaultNames)) {
    throw std::invalid_argument(
        fmt::format("unknown fault '{}'; known are {}", name, fmt::join(kFaultNames, ", ")));
  }
  return static_cast<Fault>(found - std::begin(kFaultNames));
}

const std::vector<std::string>& FaultNames() {
  static const std::vector<std::string> names(std::begin(kFaultNames), std::end(kFaultNames));
  return names;
}

std::string_view FaultName(Fault fault) {
  return kFaultNames[static_cast<std::size_t>(fault)];
}

NfcDevice::NfcDevice(std::uint32_t index, Stack stack, bool assumeAlready)
    : mIndex(index), mStack(stack), mAssumeAlready(assumeAlready) {
  static_assert(std::size(kFaultNames) == kFaults);
}

std::uint32_t NfcDevice::Protocols() const {
  return mStack == Stack::Nci ? kNciProtocols : kDigitalProtocols;
}

int NfcDevice::PowerUp() {
  if (mRemoved) {
    return ENODEV;
  }
  if (mPowered) {
    return EALREADY;
  }
  mPowered = true;
  return 0;
}

int NfcDevice::PowerDown() {
  if (mRemoved) {
    return ENODEV;
  }
  if (!mPowered) {
    return EALREADY;
  }
  if (mPolling || Has(Fault::TargetActive)) {
    return EBUSY;
  }
  mPowered = false;
  SetFault(Fault::OutOfStep, false);
  SetFault(Fault::ChipPolls, false);
  return 0;
}

int NfcDevice::CheckStartPoll(std::uint32_t mask) const {
  if (mRemoved || !mPowered) {
    return ENODEV;
  }
  if (mPolling) {
    return mAssumeAlready ? EALREADY : EBUSY;
  }
  if (Has(Fault::TargetActive) || Has(Fault::OutOfStep) || Has(Fault::Runaway)) {
    return EBUSY;
  }
  if (Has(Fault::ChipPolls)) {
    return EALREADY;
  }
  return mStack == Stack::Nci || (mask & Protocols()) != 0 ? 0 : EINVAL;
}

int NfcDevice::StartPoll(std::uint32_t port, std::uint32_t mask) {
  if (const int error = CheckStartPoll(mask); error != 0) {
    return error;
  }
  mPolling = true;
  mOwnerPort = port;
  mMask = mask;
  ++mPollId;
  return 0;
}

int NfcDevice::CheckStopPoll(std::uint32_t port) const {
  if (!mPolling) {
    return mAssumeAlready ? EALREADY : EINVAL;
  }
  if (mOwnerPort != port) {
    return EBUSY;
  }
  return mRemoved ? ENODEV : 0;
}

int NfcDevice::StopPoll(std::uint32_t port) {
  const int error = CheckStopPoll(port);
  if (error == 0) {
    EndPoll();
  }
  return error;
}

void NfcDevice::PortClosed(std::uint32_t port) {
  if (CheckStopPoll(port) == 0) {
    EndPoll();
  }
}

void NfcDevice::SetFault(Fault fault, bool on) {
  const bool endsPoll = fault == Fault::OutOfStep || fault == Fault::ChipPolls || fault == Fault::Runaway;
  if (on && endsPoll) {
    EndPoll();
  }
  mFaults[static_cast<std::size_t>(fault)] = on && (mPolling || fault != Fault::PollDead);
}

std::vector<Fault> NfcDevice::Faults() const {
  std::vector<Fault> all;
  for (std::size_t i = 0; i < kFaults; ++i) {
    if (mFaults[i]) {
      all.push_back(static_cast<Fault>(i));
    }
  }
  return all;
}

/// Of the tags in front of it, those that the reader has a target for.
std::vector<Tag> NfcDevice::KnownOf(std::vector<Tag> seen) const {
  if (mStack == Stack::Nci) {
    std::erase_if(seen, [this](const Tag& tag) { return (tag.protocols & mMask) == 0; });
    seen.resize(std::min(seen.size(), kMaxTargets));
    return seen;
  }
  // One technology at a time, and two tags of the same answer at once, which nobody understands.
  for (const Tag& tag : seen) {
    const auto sameRadio = [&tag](const Tag& other) { return other.radio == tag.radio; };
    if (tag.protocols != 0 && std::count_if(seen.begin(), seen.end(), sameRadio) == 1) {
      return {tag};
    }
  }
  return {};
}

bool NfcDevice::Detect(const std::vector<Tag>& field) {
  if (Has(Fault::Deaf) || mRemoved) {
    return false;
  }
  if (Has(Fault::Runaway)) {
    SetFault(Fault::Runaway, field.empty());
    return false;
  }
  if (!mPolling || Has(Fault::PollDead)) {
    return false;
  }
  const std::uint32_t mask = mStack == Stack::Nci ? mMask : mMask & Protocols();
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
    mTargets.push_back({mNextTarget++, std::move(tag)});
  }
  EndPoll();
  return true;
}

std::uint8_t NfcDevice::RfMode() const {
  return Has(Fault::TargetActive) ? NFC_RF_INITIATOR : NFC_RF_NONE;
}

void NfcDevice::EndPoll() {
  mPolling = false;
  SetFault(Fault::PollDead, false);
  mOwnerPort = 0;
  mMask = 0;
}

}  // namespace virtualnfc
