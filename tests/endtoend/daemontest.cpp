#include "daemontest.h"

#include <linux/nfc.h>
#include <stdlib.h>

#include <csignal>
#include <fstream>

#include "framework/rpcconfig.h"
#include "tools/common/channel.h"

using namespace virtualnfc;

DaemonTest::DaemonTest() : mKernel(std::make_unique<VirtualNfc>()) {
  std::string name = std::filesystem::temp_directory_path() / "rfidd-XXXXXX";
  mRoot = mkdtemp(name.data());
  std::filesystem::create_directories(mRoot / "etc");
  std::filesystem::create_directories(mRoot / "hub");
  WriteFile("etc/plex.json", R"({
    "listen": "unix:run/rfid.sock",
    "peers": { "Feedback": "unix:run/feedback.sock", "Diagnostics": "unix:run/diagnostics.sock" },
    "configuration": "hub"
  })");
}

DaemonTest::~DaemonTest() {
  mSupervisor.reset();
  mDaemon.reset();
  if (HasFailure()) {
    fprintf(stderr, "the daemon's log is in %s\n", Path("log").c_str());
  } else {
    std::filesystem::remove_all(mRoot);
  }
}

void DaemonTest::WriteFile(const std::string& name, const std::string& content) const {
  std::ofstream(Path("new")) << content;
  std::filesystem::rename(Path("new"), Path(name));
}

std::unique_ptr<Process> DaemonTest::Spawn(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{RFIDD_PATH};
  command.insert(command.end(), arguments.begin(), arguments.end());
  // The address sanitizer wants to be the first library of a process; here the preload is.
  const char* options = getenv("ASAN_OPTIONS");
  return std::make_unique<Process>(
      command,
      std::map<std::string, std::string>{
          {"LD_PRELOAD", PRELOAD_PATH},
          {"VIRTUAL_NFC_SOCKET", mKernel->Address()},
          {"ASAN_OPTIONS",
           (options == nullptr ? "" : std::string(options) + ":") + "verify_asan_link_order=0"}},
      Path("output"), Path("log"));
}

void DaemonTest::StartStation() {
  mStation = std::make_unique<VirtualStation>(LoadRpcConfig(mRoot).peers);
}

void DaemonTest::StartDaemon(std::vector<std::string> arguments) {
  if (!mStation) {
    StartStation();
  }
  arguments.insert(arguments.end(), {"-r", mRoot.string() + "/"});
  mDaemon = Spawn(arguments);
  mSupervisor = std::make_unique<Supervisor>(LoadRpcConfig(mRoot).listen);
  ASSERT_TRUE(mSupervisor->WaitFor("listening")) << Log();
  ASSERT_TRUE(mSupervisor->WaitFor("Uninitialized")) << Log();
  mSupervisor->Clear();
}

void DaemonTest::EnableDaemon() {
  ASSERT_EQ(mSupervisor->Disable(), "Ok");
  ASSERT_TRUE(mSupervisor->WaitFor("Disabled"));
  ASSERT_EQ(mSupervisor->Enable(), "Ok");
  ASSERT_TRUE(mSupervisor->WaitFor("Enabled"));
  mSupervisor->Clear();
}

std::string DaemonTest::Interrupt() {
  mDaemon->Signal(SIGINT);
  return mDaemon->Wait().value_or("still running");
}

bool DaemonTest::WaitForLog(const std::string& text) const {
  return Eventually([&] { return Log().find(text) != std::string::npos; });
}

void DaemonTest::Tap(const Tag& tag) {
  const auto found = mKernel->GetStatus().Events(NFC_EVENT_TARGETS_FOUND);
  mKernel->PresentTag(tag);
  EXPECT_TRUE(mKernel->WaitFor([&](const Status& s) { return s.Events(NFC_EVENT_TARGETS_FOUND) > found; }));
  mKernel->RemoveTags();
}

void DaemonTest::Tap(const std::string& uid) {
  Tap(MakeTag(TagKind::Mifare, uid));
}
