#pragma once

#include <string>
#include <vector>

#include "tools/harness/process.h"

/// What the daemon needs, over time.
class Measurements {
 public:
  /// Notes the resident memory, the descriptors and the threads of a daemon that runs. `starts`: how many
  /// daemons have been started so far.
  void Take(const Process& daemon, unsigned starts);

  /// A chart for each figure, and where daemons were started.
  std::string Charts() const;

 private:
  std::vector<size_t> mMemory;
  std::vector<size_t> mDescriptors;
  std::vector<size_t> mThreads;
  std::string mMarks;  ///< 'R' where a daemon was started
  unsigned mStarts = 0;
};
