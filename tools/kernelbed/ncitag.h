#pragma once

#include "tools/kernelbed/reader.h"

namespace kernelbed {

/// A tag as an NFC chip reports it to the kernel.
struct NciTag {
  uint8_t technology = 0;  ///< RF technology and mode
  uint8_t protocol = 0;
  uint8_t interface = 0;
  Bytes parameters;  ///< of the technology
  Bytes activation;  ///< what the activation brought

  explicit NciTag(const TagWords& words);
};

}  // namespace kernelbed
