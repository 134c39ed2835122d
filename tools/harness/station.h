#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/harness/process.h"
#include "tools/harness/supervisor.h"
#include "tools/virtual-nfc/server/virtualnfc.h"
#include "tools/virtual-station/virtualstation.h"

/// A station in a folder of its own, on this machine's own kernel: feedback and diagnostics services,
/// configuration, the real daemon and its supervisor. One thread.
///
/// rfidd is looked for beside the program that runs.
class StationOnKernel {
 public:
  /// Throws what keeps it from being set up. `name` begins the folder's. `launcher` is a command that runs
  /// the daemon; none by default.
  explicit StationOnKernel(const std::string& name, std::vector<std::string> launcher = {});
  virtual ~StationOnKernel();  ///< kills the daemon, and removes the folder unless it is to be kept
  StationOnKernel(const StationOnKernel&) = delete;
  StationOnKernel& operator=(const StationOnKernel&) = delete;

  std::string Path(const std::string& name) const { return mRoot / name; }
  const std::filesystem::path& Folder() const { return mRoot; }
  void KeepFolder() { mIsKept = true; }

  /// Writes a file of the folder in one step, as the station's other programs do.
  void WriteFile(const std::string& name, const std::string& content) const;

  void StartPeers();
  void StopPeers() { mPeers.reset(); }

  /// From now on this program runs instead of rfidd.
  void UseProgram(std::string name) { mProgram = std::move(name); }

  /// rfidd with these arguments, its standard output in the file "output", its standard error in "log", where
  /// the last one's becomes "log.1", "log.2" and so on. A pipe of that name stays and is the console.
  std::unique_ptr<Process> Spawn(const std::vector<std::string>& arguments);
  /// Starts the peers unless they run, the daemon and a supervisor; false when that one is not told that
  /// the daemon runs.
  bool StartDaemon(std::vector<std::string> arguments = {});
  /// From the start to Enabled; false when the daemon does not get there.
  bool EnableDaemon();
  /// Waits for the daemon's end and drops it and its supervisor; how it ended.
  std::string EndDaemon();

  VirtualStation& Peers() { return *mPeers; }
  Supervisor& Control() { return *mSupervisor; }
  const Process& Daemon() const { return *mDaemon; }
  bool HasDaemon() const { return mDaemon != nullptr; }

  /// What the daemon that was started last has written to its console; nothing when that is a pipe. The lines
  /// of a daemon that runs come a moment later than what they tell of.
  std::string Log() const;
  /// What the daemon, which runs, has logged until now. Ends with a line of the request that finds it out.
  std::string LogUntilNow();

 protected:
  /// What the daemon's environment has besides this process's own.
  virtual std::map<std::string, std::string> DaemonEnvironment() const { return {}; }

  const std::filesystem::path mPrograms;
  std::filesystem::path mRoot;
  std::unique_ptr<VirtualStation> mPeers;
  std::unique_ptr<Process> mDaemon;
  std::unique_ptr<Supervisor> mSupervisor;

 private:
  /// Waits until the supervisor is told this; false when the daemon ends, or the time.
  bool IsTold(const std::string& notification);

  const std::vector<std::string> mLauncher;
  std::string mProgram = "rfidd";
  bool mIsKept = false;
  unsigned mEarlierLogs = 0;
  int mLogMarks = 0;
};

/// A station whose kernel is simulated. The preload is looked for beside the program that runs.
class Station : public StationOnKernel {
 public:
  explicit Station(const std::string& name, const virtualnfc::VirtualNfcSettings& settings = {},
                   std::vector<std::string> launcher = {});
  ~Station() override;

  /// Puts a tag to the reader until it is found; false when that does not happen.
  bool Tap(const virtualnfc::Tag& tag);

  virtualnfc::VirtualNfc& Kernel() { return *mKernel; }

 protected:
  std::map<std::string, std::string> DaemonEnvironment() const override;

  std::unique_ptr<virtualnfc::VirtualNfc> mKernel;
};
