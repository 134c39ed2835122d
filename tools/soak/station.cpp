#include "station.h"

#include <fmt/format.h>
#include <stdlib.h>

#include <csignal>
#include <fstream>
#include <system_error>

#include "framework/rpcconfig.h"
#include "tools/common/channel.h"

Station::Station() : mPrograms(std::filesystem::read_symlink("/proc/self/exe").parent_path()) {
  std::string name = std::filesystem::temp_directory_path() / "soak-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), name);
  }
  mRoot = name;
  std::filesystem::create_directories(mRoot / "etc");
  std::filesystem::create_directories(mRoot / "hub");
  std::ofstream(mRoot / "etc/plex.json") << R"({
    "listen": "unix:run/rfid.sock",
    "peers": { "Feedback": "unix:run/feedback.sock", "Diagnostics": "unix:run/diagnostics.sock" },
    "configuration": "hub"
  })";
  virtualnfc::VirtualNfcSettings settings;
  settings.detectionDelay = std::chrono::milliseconds(50);
  mKernel = std::make_unique<virtualnfc::VirtualNfc>(settings);
  StartPeers();
}

Station::~Station() {
  mSupervisor.reset();
  mDaemon.reset();
  if (!mIsKept) {
    std::error_code ignored;
    std::filesystem::remove_all(mRoot, ignored);
  }
}

void Station::StartPeers() {
  mPeers = std::make_unique<VirtualStation>(LoadRpcConfig(mRoot).peers);
}

bool Station::StartDaemon() {
  ++mStarts;
  // In a session of its own: a Ctrl-C at the terminal is for this program alone.
  mDaemon = std::make_unique<Process>(
      std::vector<std::string>{"/usr/bin/setsid", mPrograms / "rfidd", "-r", mRoot.string() + "/"},
      std::map<std::string, std::string>{{"LD_PRELOAD", mPrograms / "virtual-nfc-preload.so"},
                                         {"VIRTUAL_NFC_SOCKET", mKernel->Address()},
                                         {"ASAN_OPTIONS", "verify_asan_link_order=0"}},
      mRoot / "output", LogPath());
  mSupervisor = std::make_unique<Supervisor>(LoadRpcConfig(mRoot).listen);
  return mSupervisor->WaitFor("listening") && mSupervisor->WaitFor("Uninitialized");
}

std::string Station::EndDaemon() {
  const auto end = mDaemon->Wait().value_or("still running");
  mSupervisor.reset();
  mDaemon.reset();
  return end;
}

void Station::Configure(const std::string& section, const std::string& content) const {
  std::ofstream(mRoot / "new") << content;
  std::filesystem::rename(mRoot / "new", mRoot / "hub" / (section + ".json"));
}

std::string Station::LogPath() const {
  return mRoot / fmt::format("log{}", mStarts);
}

std::string Station::Log() const {
  return ReadFile(LogPath());
}
