#include "nfcdevice.h"

#include <linux/nfc.h>

#include <cerrno>

namespace virtualnfc {

namespace {

/// The kernel keeps no more targets of one find.
constexpr std::size_t kMaxTargets = 10;

}  // namespace

NfcDevice::NfcDevice(std::uint32_t index, std::uint32_t protocols, bool assumeAlready)
    : mIndex(index), mProtocols(protocols), mAssumeAlready(assumeAlready) {}

int NfcDevice::PowerUp() {
  if (mRemoved) return ENODEV;
  if (mPowered) return EALREADY;
  mPowered = true;
  return 0;
}

int NfcDevice::PowerDown() {
  if (mRemoved) return ENODEV;
  if (!mPowered) return EALREADY;
  if (mPolling || mTargetActive) return EBUSY;
  mPowered = false;
  mDisagrees = false;
  return 0;
}

int NfcDevice::CheckStartPoll() const {
  if (mRemoved || !mPowered) return ENODEV;
  if (mPolling) return mAssumeAlready ? EALREADY : EBUSY;
  if (mDisagrees || mTargetActive) return EBUSY;
  return 0;
}

int NfcDevice::StartPoll(std::uint32_t port, std::uint32_t mask) {
  if (const int error = CheckStartPoll(); error != 0) return error;
  mPolling = true;
  mOwnerPort = port;
  mMask = mask;
  ++mPollId;
  return 0;
}

int NfcDevice::StopPoll(std::uint32_t port) {
  if (!mPolling) return mAssumeAlready ? EALREADY : EINVAL;
  if (mOwnerPort != port) return EBUSY;
  if (mRemoved) return ENODEV;
  EndPoll();
  return 0;
}

void NfcDevice::PortClosed(std::uint32_t port) {
  if (mPolling && mOwnerPort == port && !mRemoved) {
    EndPoll();
  }
}

void NfcDevice::Disagree() {
  EndPoll();
  mDisagrees = true;
}

NfcDevice::Detection NfcDevice::Detect(const std::vector<Tag>& field) {
  if (!mPolling || mDeaf || mRemoved) return Detection::Nothing;
  std::size_t seen = 0;
  std::vector<Target> known;
  for (const Tag& tag : field) {
    if (!IsPolled(mMask, tag.radio)) continue;
    ++seen;
    if ((tag.protocols & mMask) != 0 && known.size() < kMaxTargets) {
      known.push_back(Target{0, tag});
    }
  }
  if (seen == 0) return Detection::Nothing;
  if (seen == 1 && known.empty()) {
    mDeaf = true;
    return Detection::PollDied;
  }
  for (Target& target : known) {
    target.index = mNextTarget++;
  }
  mTargets = std::move(known);
  EndPoll();
  return Detection::Found;
}

void NfcDevice::Remove() {
  mRemoved = true;
  mTargets.clear();
}

std::uint8_t NfcDevice::RfMode() const {
  return mTargetActive ? NFC_RF_INITIATOR : NFC_RF_NONE;
}

void NfcDevice::EndPoll() {
  mPolling = false;
  mDeaf = false;
  mOwnerPort = 0;
  mMask = 0;
}

}  // namespace virtualnfc
