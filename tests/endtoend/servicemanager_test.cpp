// The daemon's messages to a service manager. The soak's build of the daemon checks polling every second, so
// a watchdog of a few seconds is enough.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>

#include "daemontest.h"

using namespace virtualnfc;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace {

constexpr auto kWatchdogPeriod = 6s;
/// The command, and every later one, waits for its chip for longer than a test lasts.
const std::string kForEver = " delay=600000";

class ServiceManager : public DaemonTest {
 protected:
  ServiceManager() : mSocket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, Path("notify").c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(mSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    timeval limit{};
    limit.tv_sec = std::chrono::seconds(kWatchdogPeriod).count();
    setsockopt(mSocket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    UseProgram("soak-rfidd");
  }
  ~ServiceManager() override { close(mSocket); }

  std::map<std::string, std::string> DaemonEnvironment() const override {
    auto environment = DaemonTest::DaemonEnvironment();
    environment["NOTIFY_SOCKET"] = Path("notify");
    environment["WATCHDOG_USEC"] = std::to_string(std::chrono::microseconds(kWatchdogPeriod).count());
    return environment;
  }

  /// The next assignment; empty when none comes for a watchdog's period.
  std::string Hear() {
    std::array<char, 4096> datagram{};
    const auto length = recv(mSocket, datagram.data(), datagram.size(), 0);
    return length <= 0 ? "" : std::string(datagram.data(), static_cast<size_t>(length));
  }

  /// Waits until this comes. Returns what came before, without the feeds.
  std::vector<std::string> HearUntil(const std::string& wanted) {
    std::vector<std::string> heard;
    for (const auto end = Clock::now() + kLongestWait; Clock::now() < end;) {
      const auto assignment = Hear();
      if (assignment == wanted) {
        return heard;
      }
      if (assignment != "WATCHDOG=1") {
        heard.push_back(assignment);
      }
    }
    ADD_FAILURE() << "never heard " << wanted << " after " << testing::PrintToString(heard);
    return heard;
  }

  /// Whether the watchdog goes unfed for its whole period, as the manager sees it.
  bool Starves() {
    auto fed = Clock::now();
    for (const auto end = fed + kLongestWait; Clock::now() < end;) {
      if (Hear() == "WATCHDOG=1") {
        fed = Clock::now();
      } else if (Clock::now() - fed >= kWatchdogPeriod) {
        return true;
      }
    }
    return false;
  }

  /// A hung daemon ends as the manager ends it.
  void Abort() {
    mDaemon->Signal(SIGKILL);
    EXPECT_EQ(mDaemon->Wait(), "signal 9");
  }

 private:
  int mSocket;
};

}  // namespace

TEST_F(ServiceManager, IsToldReadinessEveryStateAndLife) {
  StartDaemon({});
  EXPECT_THAT(HearUntil("READY=1"), ElementsAre("STATUS=Uninitialized: waiting for the supervisor"));
  EnableDaemon();
  EXPECT_THAT(HearUntil("STATUS=Enabled: reading cards"),
              ElementsAre("STATUS=Initializing: starting",
                          "STATUS=Disabled: waiting for the supervisor to enable the reader",
                          "STATUS=Enabling: opening the reader", "STATUS=Enabled: switching the reader on"));
  for (int feeds = 0; feeds < 5; ++feeds) {
    HearUntil("WATCHDOG=1");
  }
  mKernel->Unplug();
  const std::string why = "Reader stopped reading tags: Error in SendAndReceiveMsgs in StopPolling. (rc 19)";
  EXPECT_THAT(HearUntil("STATUS=FatalError: " + why),
              ElementsAre("STATUS=Error: " + why, "STATUS=Recovering: reopening the reader"));
  HearUntil("WATCHDOG=1");  // a fatal error is the supervisor's to solve: no restart
  HearUntil("WATCHDOG=1");
  EXPECT_EQ(Interrupt(), "exit 0");
  EXPECT_THAT(HearUntil("STOPPING=1"), ElementsAre("STATUS=Terminating: switching the reader off"));
  EXPECT_THAT(HearUntil("STATUS=Stopped"), IsEmpty());
}

TEST_F(ServiceManager, IsToldWhatKeepsTheDaemonFromStarting) {
  WriteFile("etc/plex.json", R"({ "listen": })");
  mDaemon = Spawn({"-r", Folder().string() + "/"});
  EXPECT_EQ(mDaemon->Wait(), "signal 6");
  EXPECT_THAT(Hear(), StartsWith("STATUS=Failed: " + Path("etc/plex.json") + ": line 1, column 13: "));
}

TEST_F(ServiceManager, HearsNoLifeFromAMachineThatHangs) {
  StartDaemon({});
  HearUntil("WATCHDOG=1");
  EXPECT_EQ(mSupervisor->Disable(), "Ok");
  mKernel->AddRule("DEV_UP" + kForEver);
  EXPECT_EQ(mSupervisor->Enable(), "Ok");
  EXPECT_TRUE(Starves());
  Abort();
}

TEST_F(ServiceManager, HearsNoLifeFromAMonitorThatHangs) {
  StartDaemon({});
  EnableDaemon();
  HearUntil("WATCHDOG=1");
  mKernel->AddRule("GET_TARGET" + kForEver);
  Tap("04A12B5C");
  EXPECT_TRUE(Starves());
  Abort();
}
