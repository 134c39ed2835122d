#include <sys/ptrace.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <future>
#include <system_error>
#include <vector>

#include "tests/endtoend/daemontest.h"

using namespace virtualnfc;
using ::testing::AnyOf;
using ::testing::Eq;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

/// Stops the main thread, which runs the machine, once it has nothing to do. The other threads go on.
class HeldMachine {
 public:
  explicit HeldMachine(pid_t daemon) : mPid(daemon) {
    const auto status = "/proc/" + std::to_string(mPid) + "/status";
    EXPECT_TRUE(Becomes([&] { return ReadFile(status); }, HasSubstr("State:\tS")));
    if (ptrace(PTRACE_SEIZE, mPid, 0, 0) != 0 || ptrace(PTRACE_INTERRUPT, mPid, 0, 0) != 0 ||
        waitpid(mPid, nullptr, __WALL) != mPid) {
      throw std::system_error(errno, std::generic_category(), "ptrace");
    }
  }
  ~HeldMachine() { ptrace(PTRACE_DETACH, mPid, 0, 0); }
  HeldMachine(const HeldMachine&) = delete;
  HeldMachine& operator=(const HeldMachine&) = delete;

 private:
  const pid_t mPid;
};

/// Uses an NCI reader: with other readers, a signal has no effect on a command.
class Interruption : public DaemonTest {
 protected:
  Interruption() : DaemonTest({.kernel = {.stack = Stack::Nci}}) {}

  /// Sends SIGINT and waits until the daemon's signal thread has posted the event and sleeps again.
  void ExpectInterruptPosted() {
    const auto sleeps = [this] {
      for (const auto& task :
           std::filesystem::directory_iterator("/proc/" + std::to_string(mDaemon->GetPid()) + "/task")) {
        if (ReadFile(task.path() / "comm") == "rfid-signal\n") {
          const auto status = ReadFile(task.path() / "status");
          return std::stoul(status.substr(status.find("\nvoluntary_ctxt_switches:") + 25));
        }
      }
      return 0UL;
    };
    const auto before = sleeps();
    mDaemon->Signal(SIGINT);
    EXPECT_TRUE(Becomes(sleeps, ::testing::Gt(before)));
  }

  void ExpectOrderlyEnd() {
    EXPECT_EQ(mDaemon->Wait().value_or("still running"), "exit 0");
    EXPECT_THAT(Log(), HasSubstr("State machine stopped"));
    EXPECT_FALSE(mKernel->GetStatus().Device().powered);
  }
  /// Waits until the kernel delays the command of the last rule.
  void ExpectHeldUp() {
    EXPECT_TRUE(Becomes([this] { return mKernel->ListRules().back().fired; }, ::testing::Gt(0U)))
        << Evidence();
  }
};

}  // namespace

TEST_F(Interruption, EndsTheDaemonInStatesThatItOnlyPassesThrough) {
  struct Case {
    const char* state;
    std::function<void()> prepare;
    std::function<void()> lead;  ///< queues the event that leads into the state
  };
  std::future<std::string> answer;
  for (const auto& c : std::vector<Case>{
           {"Initializing", [] {},
            [&] {
              answer = std::async(std::launch::async, [this] { return mSupervisor->Disable(); });
              EXPECT_TRUE(Logs(") IDisableCall"));
            }},
           {"Error",
            [this] {
              EnableDaemon();
              mKernel->AddRule("GET_TARGET nth=1 errno=EIO");
            },
            [this] {
              Tap("04A12B5C");
              EXPECT_TRUE(Logs("The reader does not read tags any more."));
            }},
       }) {
    SCOPED_TRACE(c.state);
    const auto sawIt = std::string("State ") + c.state + ": event recv IntTerminate";
    // The event is logged shortly before it is queued. If the signal is quicker, try again.
    for (int attempt = 0; attempt < 20 && Log().find(sawIt) == std::string::npos; ++attempt) {
      StartDaemon();
      c.prepare();
      {
        const HeldMachine held(mDaemon->GetPid());
        c.lead();
        ExpectInterruptPosted();
      }
      ExpectOrderlyEnd();
      if (answer.valid()) {
        answer.get();
      }
      mKernel->ClearRules();
      mKernel->RemoveTags();
    }
    EXPECT_THAT(Log(), HasSubstr(sawIt));
  }
}

TEST_F(Interruption, LetsANetlinkCommandThatWaitsForTheReaderFinish) {
  // A command is delayed in each transient state. The signal must neither be lost nor interrupt the command.
  struct Case {
    const char* state;
    const char* rule;
    bool disable;
  };
  for (const auto& c : {Case{"Enabling", "GET_DEVICE delay=700", false},
                        Case{"Enabled, powering up", "DEV_UP delay=700", false},
                        Case{"Enabled, starting", "START_POLL delay=700", false},
                        Case{"Enabled, in vain", "START_POLL delay=700 errno=EIO", false},
                        Case{"Disabling", "STOP_POLL delay=700", true},
                        Case{"Disabling, in vain", "STOP_POLL nth=1 delay=700 errno=EIO", true},
                        Case{"Disabling, powering down", "DEV_DOWN delay=700", true}}) {
    SCOPED_TRACE(c.state);
    StartDaemon();
    if (c.disable) {
      EnableDaemon();
    } else {
      EXPECT_EQ(mSupervisor->Disable(), "Ok");
      EXPECT_TRUE(Notifies("Disabled"));
    }
    // For a moment after the polling socket was closed, the kernel answers EBUSY to a second STOP_POLL.
    mKernel->AddRule("STOP_POLL nth=2 errno=EBUSY");
    mKernel->AddRule(c.rule);
    EXPECT_EQ(c.disable ? mSupervisor->Disable() : mSupervisor->Enable(), "Ok");
    ExpectHeldUp();
    mDaemon->Signal(SIGINT);
    mDaemon->Signal(SIGINT);  // a second one changes nothing
    ExpectOrderlyEnd();
    EXPECT_THAT(Log(), Not(::testing::ContainsRegex("(error|rc:) 512")));
    EXPECT_EQ(mKernel->GetStatus().interrupted, 0U);
    mKernel->ClearRules();
  }
}

TEST_F(Interruption, EndsTheDaemonWhileItRecovers) {
  for (const bool inVain : {false, true}) {
    SCOPED_TRACE(inVain);
    StartDaemon();
    EnableDaemon();
    mKernel->AddRule("START_POLL nth=1 errno=EPROTO");
    mKernel->AddRule(inVain ? "GET_DEVICE delay=700 errno=EIO" : "GET_DEVICE delay=700");
    Tap("04A12B5C");
    ExpectHeldUp();
    mDaemon->Signal(SIGINT);
    ExpectOrderlyEnd();
    mKernel->ClearRules();
    mKernel->RemoveTags();
  }
}

TEST_F(Interruption, TakesItsDefaultActionDuringTheAssembly) {
  bool seen = false;
  for (int attempt = 0; attempt < 200 && !seen; ++attempt) {
    mDaemon = Spawn({"-vv", "-r", mRoot.string() + "/"});
    EXPECT_TRUE(Logs("CNfcNetlink::CNfcNetlink"));
    mDaemon->Signal(SIGINT);
    const auto end = mDaemon->Wait().value_or("still running");
    seen = Log().find("Starting state machine") == std::string::npos;
    EXPECT_TRUE(!seen || end == "signal 2") << end;
  }
  EXPECT_TRUE(seen) << "the daemon was always faster";
}

TEST_F(Interruption, IsNotCaughtOnceTheMachineHasStopped) {
  StartDaemon();
  EnableDaemon();
  mKernel->AddRule("STOP_POLL delay=300000");  // the reader is closed after the machine
  mDaemon->Signal(SIGINT);
  EXPECT_TRUE(Logs("State machine stopped"));
  ExpectHeldUp();
  mDaemon->Signal(SIGINT);
  EXPECT_EQ(mDaemon->Wait().value_or("still running"), "signal 2");
}

TEST_F(Interruption, EveryRequestThatIsOnItsWayGetsAStatus) {
  StartDaemon();
  std::atomic<bool> isOver{false};
  std::vector<std::future<std::string>> requests;
  for (int i = 0; i < 20; ++i) {
    requests.push_back(std::async(std::launch::async, [&] {
      std::string answer;
      do {
        answer = mSupervisor->Enable();
      } while (answer == "Illegal" && !isOver);
      return answer;
    }));
  }
  mDaemon->Signal(SIGINT);
  ExpectOrderlyEnd();
  mDaemon.reset();
  // Requests after the end wait for the next daemon, which answers them.
  mDaemon = Spawn({"-r", mRoot.string() + "/"});
  EXPECT_EQ(mSupervisor->Enable(), "Illegal");
  isOver = true;
  for (auto& request : requests) {
    // Earlier requests are told that the daemon is stopping, or are cancelled because the server is closing.
    const auto answer = request.get();
    EXPECT_THAT(answer, AnyOf(Eq("Illegal"), StartsWith("status 14: "), StartsWith("status 1: ")));
  }
}
