#pragma once

#include <random>
#include <string>
#include <vector>

#include "tools/virtual-nfc/kernel/tag.h"

/// A card as it is presented to the reader.
struct Card {
  std::string uid;    ///< as the daemon notifies it
  bool valid = true;  ///< the UID is one that the daemon accepts
  virtualnfc::Tag tag;
};

/// The cards that come to the station.
class Cards {
 public:
  explicit Cards(std::mt19937& random);

  /// A card that was never presented before, with a valid UID.
  Card New();
  /// A known card, a new one, one without a valid UID, or one that was presented recently.
  Card Random();

  const std::vector<Card>& Known() const { return mKnown; }

 private:
  Card AnyKind();

  std::mt19937& mRandom;
  std::vector<Card> mKnown;
  std::vector<Card> mLatest;  ///< the latest random ones
  unsigned mCount = 0;
};

/// A random number below the bound.
inline unsigned Below(std::mt19937& random, unsigned bound) {
  return std::uniform_int_distribution<unsigned>(0, bound - 1)(random);
}
