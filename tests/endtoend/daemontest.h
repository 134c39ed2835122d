#pragma once

#include <gmock/gmock.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tools/harness/process.h"
#include "tools/harness/supervisor.h"
#include "tools/virtual-station/virtualstation.h"
#include "virtualnfc.h"

/// A station in a folder of its own: kernel, feedback and diagnostics services, configuration, and the real
/// daemon.
class DaemonTest : public ::testing::Test {
 protected:
  DaemonTest();
  ~DaemonTest() override;

  std::string Path(const std::string& name) const { return mRoot / name; }
  void WriteFile(const std::string& name, const std::string& content) const;  ///< by an atomic rename

  /// The daemon as a process, with these arguments.
  std::unique_ptr<Process> Spawn(const std::vector<std::string>& arguments) const;

  /// Starts the station's other services, the daemon and a client, and waits until it is subscribed.
  void StartDaemon(std::vector<std::string> arguments = {"-vv"});
  void StartStation();
  /// From the start to Enabled.
  void EnableDaemon();
  /// Ends the daemon by SIGINT; how it ended.
  std::string Interrupt();

  /// The daemon's console.
  std::string Log() const { return ReadFile(Path("log")); }
  bool WaitForLog(const std::string& text) const;

  /// Puts a card to the reader until the daemon has read it and polls again.
  void Tap(const virtualnfc::Tag& tag);
  void Tap(const std::string& uid);

  std::filesystem::path mRoot;
  std::unique_ptr<virtualnfc::VirtualNfc> mKernel;
  std::unique_ptr<VirtualStation> mStation;
  std::unique_ptr<Process> mDaemon;
  std::unique_ptr<Supervisor> mSupervisor;
};
