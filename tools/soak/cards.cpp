#include "tools/soak/cards.h"

#include <fmt/format.h>
#include <linux/nfc.h>

using namespace virtualnfc;

namespace {

constexpr size_t kLatestCards = 5;

Card MifareCard(const std::string& uid) {
  return {uid, true, MakeTag(TagKind::Mifare, uid)};
}

}  // namespace

Cards::Cards(std::mt19937& random)
    : mRandom(random),
      mKnown{MifareCard("04A12B5C"),
             MifareCard("04A12B5C112233"),
             MifareCard("DEADBEEF"),
             {"E007060504030201", true, MakeTag(TagKind::Iso15693, "E007060504030201")}} {}

Card Cards::New() {
  return MifareCard(fmt::format("{:08X}", 0x10000000U + ++mCount));
}

Card Cards::Random() {
  if (!mLatest.empty() && Below(mRandom, 4) == 0) {
    return mLatest[Below(mRandom, mLatest.size())];
  }
  auto card = AnyKind();
  mLatest.push_back(card);
  if (mLatest.size() > kLatestCards) {
    mLatest.erase(mLatest.begin());
  }
  return card;
}

Card Cards::AnyKind() {
  const unsigned kind = Below(mRandom, 15);
  if (kind < 6) {
    return mKnown[Below(mRandom, mKnown.size())];
  }
  if (kind < 10) {
    return New();
  }
  if (kind < 12) {
    return MifareCard(fmt::format("04{:012X}", ++mCount));
  }
  if (kind == 12) {
    return {"", false, MakeTag(TagKind::Felica, "0102030405060708")};
  }
  if (kind == 13) {
    const auto uid = fmt::format("{:020X}", ++mCount);
    return {uid, false, MakeTag(TagKind::Mifare, uid)};
  }
  const Bytes tooLong(11 + Below(mRandom, 20), 0x42);
  return {"", false, MakeRawTag(NFC_PROTO_MIFARE_MASK, {{NFC_ATTR_TARGET_NFCID1, tooLong}})};
}
