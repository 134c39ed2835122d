#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/eventually.h"

/// A child process whose output goes to files. One thread.
class Process {
 public:
  /// Starts it. `environment` is added to this process's own.
  Process(const std::vector<std::string>& command, const std::map<std::string, std::string>& environment,
          const std::string& outputFile, const std::string& errorFile);
  ~Process();  ///< kills it when it is still running
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t GetPid() const { return mPid; }
  void Signal(int signal) const;

  /// How the process ended: "exit 0", "signal 6"; nothing when it still runs after the timeout.
  std::optional<std::string> Wait(std::chrono::seconds limit = kLongestWait);

  /// Whether Wait has reported the end.
  bool IsOver() const { return mEnd.has_value(); }

  size_t OpenDescriptors() const;
  size_t Threads() const;
  /// A memory figure of the process, in KiB: "VmRSS" is the memory resident now, "VmHWM" the maximum so far.
  /// 0 when the process has ended.
  size_t Memory(const std::string& name) const;

 private:
  pid_t mPid = -1;
  std::optional<std::string> mEnd;
};

/// The whole file; empty when there is none.
std::string ReadFile(const std::string& path);
