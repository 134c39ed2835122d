#include "tools/harness/station.h"

#include <fmt/format.h>
#include <linux/nfc.h>
#include <stdlib.h>

#include <cerrno>
#include <fstream>
#include <system_error>
#include <utility>

#include "framework/rpcconfig.h"
#include "tools/common/channel.h"

std::filesystem::path NewFolder(const std::string& name) {
  std::string folder = std::filesystem::temp_directory_path() / (name + "-XXXXXX");
  if (mkdtemp(folder.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), folder);
  }
  return folder;
}

StationOnKernel::StationOnKernel(std::filesystem::path folder, std::vector<std::string> launcher)
    : mPrograms(std::filesystem::read_symlink("/proc/self/exe").parent_path()),
      mRoot(std::move(folder)),
      mLauncher(std::move(launcher)) {
  std::filesystem::create_directories(mRoot / "etc");
  std::filesystem::create_directories(mRoot / "hub");
  WriteFile("etc/plex.json", R"({
    "listen": "unix:run/rfid.sock",
    "peers": { "Feedback": "unix:run/feedback.sock", "Diagnostics": "unix:run/diagnostics.sock" },
    "configuration": "hub"
  })");
  StartPeers();
}

StationOnKernel::~StationOnKernel() {
  mSupervisor.reset();
  mDaemon.reset();
  if (!mIsKept) {
    std::error_code ignored;
    std::filesystem::remove_all(mRoot, ignored);
  }
}

void StationOnKernel::WriteFile(const std::string& name, const std::string& content) const {
  std::ofstream(Path("new")) << content;
  std::filesystem::rename(Path("new"), Path(name));
}

void StationOnKernel::StartPeers() {
  mPeers = std::make_unique<VirtualStation>(LoadRpcConfig(mRoot).peers);
}

std::unique_ptr<Process> StationOnKernel::Spawn(const std::vector<std::string>& arguments) {
  if (std::filesystem::is_regular_file(Path("log"))) {
    std::filesystem::rename(Path("log"), Path(fmt::format("log.{}", ++mEarlierLogs)));
  }
  auto command = mLauncher;
  command.push_back(mPrograms / mProgram);
  command.insert(command.end(), arguments.begin(), arguments.end());
  return std::make_unique<Process>(command, DaemonEnvironment(), Path("output"), Path("log"));
}

bool StationOnKernel::StartDaemon(std::vector<std::string> arguments) {
  arguments.insert(arguments.end(), {"-r", mRoot.string() + "/"});
  mDaemon = Spawn(arguments);
  mSupervisor = std::make_unique<Supervisor>(LoadRpcConfig(mRoot).listen);
  return IsTold("listening") && IsTold("Uninitialized");
}

bool StationOnKernel::EnableDaemon() {
  return mSupervisor->Disable() == "Ok" && IsTold("Disabled") && mSupervisor->Enable() == "Ok" &&
         IsTold("Enabled");
}

bool StationOnKernel::IsTold(const std::string& notification) {
  const auto isTold = [&](std::chrono::seconds limit) {
    return mSupervisor->WaitFor(notification, 1, limit);
  };
  return Eventually([&] { return isTold(std::chrono::seconds(1)) || DaemonsEnd().has_value(); }) &&
         isTold(std::chrono::seconds(0));
}

std::optional<std::string> StationOnKernel::DaemonsEnd() {
  return mDaemon ? mDaemon->Wait(std::chrono::seconds(0)) : std::nullopt;
}

std::string StationOnKernel::Log() const {
  return std::filesystem::is_regular_file(Path("log")) ? ReadFile(Path("log")) : "";
}

std::string StationOnKernel::LogUntilNow() {
  const int level = 1000 + ++mLogMarks;
  mSupervisor->SetLogLevel(level);  // refused with a line
  const auto mark = fmt::format("Log level {} does not exist", level);
  std::string log;
  Eventually([&] {
    log = Log();
    return log.find(mark) != std::string::npos;
  });
  return log;
}

std::string StationOnKernel::EndDaemon() {
  auto end = mDaemon->Wait().value_or("still running");
  mSupervisor.reset();
  mDaemon.reset();
  return end;
}

Station::Station(const std::filesystem::path& folder, const virtualnfc::VirtualNfcSettings& settings,
                 std::vector<std::string> launcher)
    : StationOnKernel(folder, std::move(launcher)),
      mKernel(std::make_unique<virtualnfc::VirtualNfc>(settings, Path("nfc.sock"))) {}

Station::~Station() {
  mSupervisor.reset();
  mDaemon.reset();  // before its kernel
}

std::map<std::string, std::string> Station::DaemonEnvironment() const {
  // The address sanitizer wants to be the first library of a process; here the preload is.
  const char* options = getenv("ASAN_OPTIONS");
  return {
      {"LD_PRELOAD", mPrograms / "virtual-nfc-preload.so"},
      {"VIRTUAL_NFC_SOCKET", mKernel->Address()},
      {"ASAN_OPTIONS", (options == nullptr ? "" : std::string(options) + ":") + "verify_asan_link_order=0"}};
}

std::string Station::StartBench(const std::string& port) {
  StopPeers();
  mBench.reset();
  auto command = mLauncher;
  command.insert(command.end(), {mPrograms / "virtual-station", "--root", mRoot, "bench", "--nfc",
                                 Path("nfc.sock"), "--log", Path("log"), "--port", port});
  mBench = std::make_unique<Process>(command, std::map<std::string, std::string>{}, Path("bench.url"),
                                     Path("bench.log"));
  std::string url;
  Eventually([&] {
    url = ReadFile(Path("bench.url"));
    return url.ends_with('\n') || mBench->Wait(std::chrono::seconds(0));
  });
  if (!url.ends_with('\n')) {
    throw std::runtime_error("the bench does not start: " + ReadFile(Path("bench.log")));
  }
  url.pop_back();
  return url;
}

bool Station::Tap(const virtualnfc::Tag& tag) {
  const auto found = mKernel->GetStatus().Events(NFC_EVENT_TARGETS_FOUND);
  mKernel->PresentTag(tag);
  const bool isFound = mKernel->WaitFor(
      [&](const virtualnfc::Status& status) { return status.Events(NFC_EVENT_TARGETS_FOUND) > found; },
      kLongestWait);
  mKernel->RemoveTags();
  return isFound;
}
