#include "tools/kernelbed/digitaltag.h"

#include <algorithm>

namespace kernelbed {

namespace {

constexpr uint8_t kSensReq = 0x26;
constexpr uint8_t kAllReq = 0x52;
constexpr uint8_t kSddReq = 0x93;  // plus 2 for each further level
constexpr uint8_t kWholeByteCount = 0x20;
constexpr uint8_t kSelect = 0x70;
constexpr uint8_t kCascadeTag = 0x88;
constexpr uint8_t kNotComplete = 0x04;
constexpr uint8_t kIsType4 = 0x20;
constexpr uint8_t kRats = 0xe0;
constexpr uint8_t kSensbReq = 0x05;
constexpr uint8_t kAttrib = 0x1d;
constexpr uint8_t kInventory = 0x01;

}  // namespace

DigitalTag::DigitalTag(const TagWords& words)
    : mKind(words.Kind()), mUid(words.Uid()), mSak(words.ByteOption("sak", mKind == "a4" ? "20" : "00")) {}

void DigitalTag::Reset() {
  mState = State::Idle;
  mLevel = 0;
}

Bytes DigitalTag::Selector() const {
  Bytes selector(5);
  const auto from = mUid.begin() + static_cast<std::ptrdiff_t>(3 * mLevel);
  if (mLevel + 1 < Levels()) {
    selector[0] = kCascadeTag;
    std::copy_n(from, 3, selector.begin() + 1);
  } else {
    std::copy_n(from, 4, selector.begin());
  }
  selector[4] = selector[0] ^ selector[1] ^ selector[2] ^ selector[3];
  return selector;
}

Bytes DigitalTag::AnswerA(const Bytes& frame) {
  const auto command = frame[0];
  if (mState == State::Protocol) {
    return {};  // silent until the field goes off
  }
  if (mState == State::Idle && (command == kSensReq || command == kAllReq)) {
    mState = State::Ready;
    const uint8_t length = mUid.size() == 7 ? 0x44 : mUid.size() == 10 ? 0x84 : 0x04;
    return mKind == "a1" ? Bytes{0x00, 0x0c} : Bytes{length, 0x00};
  }
  if (mState == State::Ready && mKind != "a1" && frame.size() >= 2 && command == kSddReq + 2 * mLevel) {
    auto selector = Selector();
    if (frame[1] == kWholeByteCount) {
      return selector;
    }
    if (frame[1] == kSelect && std::equal(selector.begin(), selector.end(), frame.begin() + 2, frame.end())) {
      if (++mLevel < Levels()) {
        return {kNotComplete};
      }
      mState = State::Active;
      return {mSak};
    }
  }
  if (mState == State::Active && command == kRats && (mSak & kIsType4) != 0) {
    mState = State::Protocol;
    return {0x05, 0x75, 0x77, 0x81, 0x02};
  }
  Reset();  // an unexpected frame
  return {};
}

Bytes DigitalTag::AnswerB(const Bytes& frame) {
  if (mState == State::Protocol) {
    return {};
  }
  if (frame[0] == kSensbReq) {
    return {0x50, mUid[0], mUid[1], mUid[2], mUid[3], 0x00, 0x00, 0x00, 0x00, 0x80, 0x81, 0x71};
  }
  if (frame[0] == kAttrib && frame.size() == 9 && std::equal(mUid.begin(), mUid.end(), frame.begin() + 1)) {
    mState = State::Protocol;
    return {0x00};
  }
  return {};
}

Bytes DigitalTag::Answer(Tech tech, const Bytes& frame) {
  if (frame.empty()) {
    return {};
  }
  switch (mKind.front()) {
    case 'a':
      return tech == Tech::A106 ? AnswerA(frame) : Bytes();
    case 'b':
      return tech == Tech::B106 ? AnswerB(frame) : Bytes();
    case 'f': {
      if ((tech != Tech::F212 && tech != Tech::F424) || frame.size() < 6 || frame[1] != 0x00) {
        return {};
      }
      Bytes answer{0x12, 0x01};  // length and response code
      Append(answer, mUid);
      Append(answer, {0x01, 0x20, 0x22, 0x04, 0x27, 0x67, 0x4e, 0xff});
      return answer;
    }
    default: {
      if (tech != Tech::Iso15693 || frame.size() < 2 || frame[1] != kInventory) {
        return {};
      }
      Bytes answer{0x00, 0x00};  // flags and DSFID
      Append(answer, Bytes(mUid.rbegin(), mUid.rend()));
      return answer;
    }
  }
}

}  // namespace kernelbed
