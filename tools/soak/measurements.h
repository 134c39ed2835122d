#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "tools/harness/process.h"

/// The daemon's use of resources: how it is now, and its range in the whole run.
class Measurements {
 public:
  void Take(const Process& daemon) {
    if (const size_t memory = daemon.Memory("VmRSS"); memory != 0) {  // 0: it has ended
      mMemory.Take(memory);
      mDescriptors.Take(daemon.OpenDescriptors());
      mThreads.Take(daemon.Threads());
    }
  }

  std::string Line() const {
    return fmt::format("memory {} KiB, {} descriptors, {} threads", mMemory.Text(), mDescriptors.Text(),
                       mThreads.Text());
  }

 private:
  struct Figure {
    void Take(size_t value) {
      latest = value;
      least = std::min(least, value);
      most = std::max(most, value);
    }
    std::string Text() const { return fmt::format("{} ({} to {})", latest, least, most); }

    size_t latest = 0;
    size_t least = SIZE_MAX;
    size_t most = 0;
  };

  Figure mMemory;
  Figure mDescriptors;
  Figure mThreads;
};
