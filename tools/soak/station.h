#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tools/harness/process.h"
#include "tools/harness/supervisor.h"
#include "tools/virtual-station/virtualstation.h"
#include "virtualnfc.h"

/// A station in a folder of its own: kernel, feedback and diagnostics services, configuration, the real
/// daemon and its supervisor. One thread.
class Station {
 public:
  /// Throws what keeps it from being set up.
  Station();
  ~Station();  ///< removes the folder unless it is to be kept
  Station(const Station&) = delete;
  Station& operator=(const Station&) = delete;

  void StartPeers();
  void StopPeers() { mPeers.reset(); }

  /// Starts the daemon and waits until its supervisor is told that it runs; false when that does not happen.
  bool StartDaemon();
  void SignalDaemon(int signal) const { mDaemon->Signal(signal); }
  /// Waits for its end and drops it and its supervisor; how it ended.
  std::string EndDaemon();

  /// A section of the configuration, replaced in one step.
  void Configure(const std::string& section, const std::string& content) const;

  virtualnfc::VirtualNfc& Kernel() { return *mKernel; }
  VirtualStation& Peers() { return *mPeers; }
  Supervisor& Control() { return *mSupervisor; }
  const Process& Daemon() const { return *mDaemon; }
  bool HasDaemon() const { return mDaemon != nullptr; }

  /// The log of the daemon that runs, or has run last.
  std::string Log() const;
  const std::filesystem::path& Folder() const { return mRoot; }
  void KeepFolder() { mIsKept = true; }

 private:
  std::string LogPath() const;

  std::filesystem::path mRoot;
  std::filesystem::path mPrograms;  ///< where rfidd and the preload are
  bool mIsKept = false;
  unsigned mStarts = 0;
  std::unique_ptr<virtualnfc::VirtualNfc> mKernel;
  std::unique_ptr<VirtualStation> mPeers;
  std::unique_ptr<Process> mDaemon;
  std::unique_ptr<Supervisor> mSupervisor;
};
