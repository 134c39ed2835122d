#pragma once

#include "tools/kernelbed/reader.h"

namespace kernelbed {

/// The radio technologies by the numbers of the kernel's digital stack (NFC_DIGITAL_RF_TECH_...).
enum class Tech { A106, F212, F424, Iso15693, B106 };

/// A tag in the field: answers each frame, depending on the earlier ones. One thread.
class DigitalTag {
 public:
  explicit DigitalTag(const TagWords& words);

  /// The field has gone: the tag forgets.
  void Reset();

  /// The tag's answer, without CRC; empty when the tag is silent.
  Bytes Answer(Tech tech, const Bytes& frame);

 private:
  enum class State { Idle, Ready, Active, Protocol };

  Bytes AnswerA(const Bytes& frame);
  Bytes AnswerB(const Bytes& frame);
  /// The four bytes and the check byte by which a level of anticollision selects the tag.
  Bytes Selector() const;
  size_t Levels() const { return mUid.size() / 3; }

  std::string mKind;
  Bytes mUid;
  uint8_t mSak;
  State mState = State::Idle;
  size_t mLevel = 0;
};

}  // namespace kernelbed
