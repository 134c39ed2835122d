// The tool and the preload, as processes of their own.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "inprocess.h"
#include "nfcclient.h"

namespace {

using nfctest::NfcClient;
using testing::HasSubstr;
using testing::MatchesRegex;
using virtualnfc::InProcessVirtualNfc;
using virtualnfc::Status;
using virtualnfc::UniqueFd;

/// A child process whose output is read line by line.
class Program {
 public:
  explicit Program(std::vector<std::string> words, std::vector<std::string> environment = {}) {
    int in[2];
    int out[2];
    EXPECT_EQ(::pipe2(in, O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawn_file_actions_adddup2(&files, in[0], 0);
    ::posix_spawn_file_actions_adddup2(&files, out[1], 1);
    ::posix_spawn_file_actions_adddup2(&files, out[1], 2);
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    std::vector<char*> variables;
    for (std::string& variable : environment) variables.push_back(variable.data());
    variables.push_back(nullptr);
    EXPECT_EQ(::posix_spawn(&mPid, words[0].c_str(), &files, nullptr, arguments.data(), variables.data()), 0);
    ::posix_spawn_file_actions_destroy(&files);
    ::close(in[0]);
    ::close(out[1]);
    mInput.Reset(in[1]);
    mOutput.Reset(out[0]);
  }
  ~Program() {
    if (mPid > 0) {
      ::kill(mPid, SIGKILL);
      ::waitpid(mPid, nullptr, 0);
    }
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// The next line of its output; "(nothing)" when none comes within ten seconds or it has ended.
  std::string Line() {
    std::string line;
    for (;;) {
      pollfd waiting{mOutput.Get(), POLLIN, 0};
      char c = 0;
      if (::poll(&waiting, 1, 10000) != 1 || ::read(mOutput.Get(), &c, 1) != 1) {
        return line.empty() ? "(nothing)" : line;
      }
      if (c == '\n') return line;
      line += c;
    }
  }

  void Signal(int number) const { ::kill(mPid, number); }

  /// Waits for its end. @returns the exit status, or the negative number of the signal that ended it
  int Wait() {
    mInput.Reset();
    int status = 0;
    ::waitpid(std::exchange(mPid, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t mPid = -1;
  UniqueFd mInput;
  UniqueFd mOutput;
};

class VirtualNfcTool : public testing::Test {
 protected:
  VirtualNfcTool() {
    std::string pattern = testing::TempDir() + "virtual-nfc-XXXXXX";
    mFolder = ::mkdtemp(pattern.data());
    mSocket = mFolder / "kernel";
  }
  ~VirtualNfcTool() override { std::filesystem::remove_all(mFolder); }

  Program Tool(std::vector<std::string> words) const {
    words.insert(words.begin(), {VIRTUAL_NFC_TOOL, "--socket", mSocket.string()});
    return Program(std::move(words));
  }

  static Program Probe(const std::string& server) {
    return Program({NFC_PROBE}, {"LD_PRELOAD=" VIRTUAL_NFC_PRELOAD, "VIRTUAL_NFC_SOCKET=" + server});
  }

  std::filesystem::path mFolder;
  std::filesystem::path mSocket;
};

TEST_F(VirtualNfcTool, ServesAProgramThatKnowsNothingOfIt) {
  Program server = Tool({"serve"});
  ASSERT_THAT(server.Line(), HasSubstr("ready"));
  EXPECT_EQ(Tool({"env"}).Line(),
            "LD_PRELOAD=" VIRTUAL_NFC_PRELOAD " VIRTUAL_NFC_SOCKET=" + mSocket.string());

  Program probe = Probe(mSocket);
  EXPECT_EQ(probe.Line(), "family 20");
  EXPECT_EQ(probe.Line(), "up 0");
  EXPECT_EQ(probe.Line(), "start 0");
  EXPECT_THAT(Tool({"status"}).Line(),
              MatchesRegex("device   nfc0, power on, polling for 0xfc by port [0-9]+.*"));
  EXPECT_EQ(Tool({"tap", "04A12B5C"}).Wait(), 0);
  EXPECT_EQ(probe.Line(), "event 9");
  EXPECT_EQ(Tool({"unplug"}).Wait(), 0);
  EXPECT_EQ(probe.Line(), "event 11");
  EXPECT_EQ(probe.Wait(), 0);

  server.Signal(SIGTERM);
  EXPECT_EQ(server.Wait(), 0);
  EXPECT_FALSE(std::filesystem::exists(mSocket));
}

TEST_F(VirtualNfcTool, BeginsAsItIsTold) {
  Program server = Tool({"serve", "--no-device", "--assume-ealready"});
  ASSERT_THAT(server.Line(), HasSubstr("ready"));
  EXPECT_EQ(Tool({"status"}).Line(), "device   none");
  EXPECT_EQ(Tool({"plug"}).Line(), "device 0");
  Program first = Probe(mSocket);
  for (const char* line : {"family 20", "up 0", "start 0"}) EXPECT_EQ(first.Line(), line);
  Program second = Probe(mSocket);
  EXPECT_EQ(second.Line(), "family 20");
  // EALREADY has no code of libnl's own; the kernel's EBUSY would be -25.
  EXPECT_EQ(second.Line(), "up -1");
  EXPECT_EQ(second.Line(), "start -1");
  server.Signal(SIGINT);
  EXPECT_EQ(server.Wait(), 0);
}

TEST_F(VirtualNfcTool, TellsByItsExitStatusWhatWentWrong) {
  EXPECT_EQ(Tool({"status"}).Wait(), 3);
  EXPECT_EQ(Tool({"dance"}).Wait(), 2);
  EXPECT_EQ(Program({VIRTUAL_NFC_TOOL, "status"}).Wait(), 2);
  EXPECT_EQ(Program({VIRTUAL_NFC_TOOL, "--help"}).Wait(), 0);
  Program server = Tool({"serve"});
  ASSERT_THAT(server.Line(), HasSubstr("ready"));
  Program secondServer = Tool({"serve"});
  EXPECT_THAT(secondServer.Line(), HasSubstr("somebody serves there already"));
  EXPECT_EQ(secondServer.Wait(), 3);
  Program tap = Tool({"tap", "04A1"});
  EXPECT_THAT(tap.Line(), HasSubstr("a UID of 0, 4, 7, 10 bytes, not of 2"));
  EXPECT_EQ(tap.Wait(), 1);

  // What a server that was killed has left is no obstacle.
  server.Signal(SIGKILL);
  EXPECT_EQ(server.Wait(), -SIGKILL);
  EXPECT_EQ(Tool({"status"}).Wait(), 3);
  Program third = Tool({"serve"});
  EXPECT_THAT(third.Line(), HasSubstr("ready"));
}

TEST_F(VirtualNfcTool, SaysWhyAProgramHasNoNetlink) {
  Program probe = Probe(mSocket);
  EXPECT_THAT(probe.Line(), HasSubstr("cannot reach the server at '" + mSocket.string()));
}

TEST_F(VirtualNfcTool, LeavesAChipInDisagreementWhenTheProgramIsKilledInAStart) {
  InProcessVirtualNfc kernel;
  kernel.AddRule("START_POLL delay=60000 times=1");
  Program probe = Probe(kernel.Address());
  ASSERT_TRUE(kernel.WaitFor([](const Status& status) { return status.commandWaits; }));
  probe.Signal(SIGKILL);
  probe.Wait();
  ASSERT_TRUE(
      kernel.WaitFor([](const Status& status) { return !status.commandWaits && status.openSockets == 0; }));
  const NfcClient client;
  EXPECT_EQ(client.Command(NFC_CMD_START_POLL), EBUSY);
  EXPECT_EQ(client.Command(NFC_CMD_STOP_POLL), EINVAL);
  EXPECT_EQ(client.Command(NFC_CMD_DEV_DOWN), 0);
  EXPECT_TRUE(client.Poll());
}

}  // namespace
