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

/// A random number below the bound.
inline unsigned Below(std::mt19937& random, size_t bound) {
  return static_cast<unsigned>(std::uniform_int_distribution<size_t>(0, bound - 1)(random));
}

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
  const std::vector<Card> mKnown;
  std::vector<Card> mLatest;  ///< the latest random ones
  unsigned mCount = 0;
};
