#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/harness/process.h"
#include "tools/harness/supervisor.h"
#include "tools/virtual-nfc/server/virtualnfc.h"
#include "tools/virtual-station/virtualstation.h"

/// A launcher: Ctrl-C at the terminal does not reach the programs, so this program ends them.
inline const std::vector<std::string> kOwnSession{"/usr/bin/setsid"};

/// Makes a new folder for temporary files whose name begins with `name`.
std::filesystem::path NewFolder(const std::string& name);

/// A station in a folder, on this machine's own kernel: feedback and diagnostics services, configuration, the
/// real daemon and its supervisor. One thread.
///
/// rfidd is looked for beside the program that runs.
class StationOnKernel {
 public:
  /// Uses an existing empty folder and starts the peers. `launcher` is a command that runs the programs; none
  /// by default. Throws when something cannot be set up.
  explicit StationOnKernel(std::filesystem::path folder, std::vector<std::string> launcher = {});
  virtual ~StationOnKernel();  ///< kills the daemon, and removes the folder unless KeepFolder was called
  StationOnKernel(const StationOnKernel&) = delete;
  StationOnKernel& operator=(const StationOnKernel&) = delete;

  std::string Path(const std::string& name) const { return mRoot / name; }
  const std::filesystem::path& Folder() const { return mRoot; }
  void KeepFolder() { mIsKept = true; }

  /// Replaces a file of the folder in one step, as the station's other programs do.
  void WriteFile(const std::string& name, const std::string& content) const;

  void StartPeers();
  void StopPeers() { mPeers.reset(); }

  /// From now on this program runs instead of rfidd.
  void UseProgram(std::string name) { mProgram = std::move(name); }

  /// Runs rfidd. Its standard output goes to the file "output", its standard error to "log"; an earlier "log"
  /// becomes "log.1", "log.2" and so on. A pipe called "log" stays and is the console.
  std::unique_ptr<Process> Spawn(const std::vector<std::string>& arguments);
  /// Starts the daemon and a supervisor. Returns false unless the daemon reports Uninitialized to the
  /// supervisor.
  bool StartDaemon(std::vector<std::string> arguments = {});
  /// Enables a daemon that was just started. Returns false if that fails.
  bool EnableDaemon();
  /// Waits for the daemon's end and drops daemon and supervisor. Returns how it ended.
  std::string EndDaemon();

  VirtualStation& Peers() { return *mPeers; }
  Supervisor& Control() { return *mSupervisor; }
  const Process& Daemon() const { return *mDaemon; }
  bool HasDaemon() const { return mDaemon != nullptr; }
  bool HasPeers() const { return mPeers != nullptr; }
  /// How the daemon ended by itself; nothing while it runs or when there is none.
  std::optional<std::string> DaemonsEnd();

  /// What the latest daemon has written to its console; empty when that is a pipe. A line appears a moment
  /// after the event that it reports.
  std::string Log() const;
  /// What the running daemon has logged up to this call. The last line belongs to the request that this
  /// function makes.
  std::string LogUntilNow();

 protected:
  /// Variables that are added to the daemon's environment.
  virtual std::map<std::string, std::string> DaemonEnvironment() const { return {}; }

  const std::filesystem::path mPrograms;
  const std::filesystem::path mRoot;
  const std::vector<std::string> mLauncher;
  std::unique_ptr<VirtualStation> mPeers;
  std::unique_ptr<Process> mDaemon;
  std::unique_ptr<Supervisor> mSupervisor;

 private:
  /// Waits until the supervisor gets this notification. Returns false on timeout or when the daemon ends.
  bool IsTold(const std::string& notification);

  std::string mProgram = "rfidd";
  bool mIsKept = false;
  unsigned mEarlierLogs = 0;
  int mLogMarks = 0;
};

/// A station whose kernel is simulated, at the socket "nfc.sock" of the folder. The preload and
/// virtual-station are looked for beside the program that runs.
class Station : public StationOnKernel {
 public:
  explicit Station(const std::filesystem::path& folder, const virtualnfc::VirtualNfcSettings& settings = {},
                   std::vector<std::string> launcher = {});
  ~Station() override;

  /// Holds a tag to the reader until it is found. Returns false on timeout.
  bool Tap(const virtualnfc::Tag& tag);

  /// Runs virtual-station's bench in place of the peers. Returns the address of its page. Throws
  /// std::runtime_error with the bench's output when it does not start.
  std::string StartBench(const std::string& port = "0");

  virtualnfc::VirtualNfc& Kernel() { return *mKernel; }

 protected:
  std::map<std::string, std::string> DaemonEnvironment() const override;

  std::unique_ptr<Process> mBench;

  std::unique_ptr<virtualnfc::VirtualNfc> mKernel;
};
