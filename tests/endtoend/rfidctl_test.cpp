#include <csignal>

#include "tests/endtoend/daemontest.h"

using ::testing::AllOf;
using ::testing::HasSubstr;

namespace {

using Words = std::vector<std::string>;

/// rfidctl as a process with arguments, output and status.
class Rfidctl : public DaemonTest {
 protected:
  std::unique_ptr<Process> Start(const Words& command) const {
    return std::make_unique<Process>(command, std::map<std::string, std::string>{}, Path("out"), Path("err"));
  }
  std::unique_ptr<Process> StartCtl(const Words& arguments) const {
    Words command{RFIDCTL_PATH, "--root", mRoot};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return Start(command);
  }
  std::string Out() const { return ReadFile(Path("out")); }
  std::string Err() const { return ReadFile(Path("err")); }

  /// Runs it. Standard error must be empty, or one line that contains `err`.
  void Expect(const Words& arguments, const std::string& end, const std::string& out,
              const std::string& err) {
    SCOPED_TRACE(::testing::PrintToString(arguments));
    EXPECT_EQ(StartCtl(arguments)->Wait(), end);
    EXPECT_EQ(Out(), out);
    ExpectError(err);
  }
  void ExpectError(const std::string& text) const {
    const auto line = Err();
    EXPECT_THAT(line, HasSubstr(text.empty() ? "" : "rfidctl: "));
    EXPECT_THAT(line, HasSubstr(text));
    EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), text.empty() ? 0 : 1) << line;
  }
};

}  // namespace

TEST_F(Rfidctl, TheStatusShowsWhatTheDaemonDoesAndRefuses) {
  StartDaemon();
  Expect({"state"}, "exit 0", "Uninitialized\n", "");
  Expect({"enable"}, "exit 1", "", "refuses");
  Expect({"inject", "04A12B5C"}, "exit 1", "", "needs the daemon to be enabled");
  Expect({"--json", "learning", "on"}, "exit 1", "{\"result\":\"Illegal\"}\n", "refuses");
  Expect({"inject", std::string(70'000, 'A')}, "exit 1", "", "the daemon refuses: ");
  Expect({"disable"}, "exit 0", "", "");
  Expect({"enable", "--json"}, "exit 0", "{\"result\":\"Ok\"}\n", "");
  EXPECT_TRUE(Notifies("Enabled"));
  Expect({"inject", "04a12b5c"}, "exit 0", "", "");
  EXPECT_TRUE(Notifies("token 04A12B5C ERfidUidNotInList"));
  Expect({"learning", "on"}, "exit 0", "", "");
  Expect({"inject", "11223344"}, "exit 0", "", "");
  EXPECT_TRUE(Notifies("learning 11223344"));
  Expect({"log-level"}, "exit 0", "trace\n", "");
}

TEST_F(Rfidctl, SignalsAreListedByAServiceThatCanListThem) {
  StartDaemon();
  EnableDaemon();
  EXPECT_EQ(mSupervisor->Inject("11223344"), "Ok");
  const auto output = [&](const Words& command) {
    EXPECT_EQ(StartCtl(command)->Wait(), "exit 0");
    return Out();
  };
  EXPECT_TRUE(
      Becomes([&] { return output({"signals"}); }, HasSubstr("101 Rfid last scanned UID = 11223344\n")));
  EXPECT_TRUE(Becomes(
      [&] {
        return output({"signals", "--json"});
      },
      HasSubstr("{\"id\":101,\"name\":\"Rfid last scanned UID\",\"unit\":\"\",\"value\":\"11223344\"}\n")));
  EXPECT_EQ(Start({RFIDCTL_PATH, "--address", "unix:" + Path("run/rfid.sock"), "signals"})->Wait(), "exit 1");
  ExpectError("only takes signals");
}

TEST_F(Rfidctl, WatchingTooFewNotificationsIsAFailure) {
  StartDaemon();
  // A slow machine may take longer to reach the daemon.
  std::string end;
  for (int seconds = 2; end != "exit 4" && seconds < 100; seconds *= 4) {
    end = StartCtl({"watch", "--only", "token", "--count", "1", "--timeout", std::to_string(seconds)})
              ->Wait()
              .value_or("");
  }
  EXPECT_EQ(end, "exit 4");
  EXPECT_EQ(Out(), "");
  ExpectError("0 of 1");
}

TEST_F(Rfidctl, OutputThatCannotBeWrittenIsAFailure) {
  StartDaemon();
  EXPECT_EQ(Start({"/bin/sh", "-c", "\"$0\" --root \"$1\" state >/dev/full", RFIDCTL_PATH, mRoot})->Wait(),
            "exit 1");
  ExpectError("No space left");
}

TEST_F(Rfidctl, AnUnknownWordIsNamed) {
  for (const auto& [arguments, named] : std::vector<std::pair<Words, std::string>>{
           {{}, "required"},
           {{"stat"}, "stat"},
           {{"--nonsense", "state"}, "--nonsense"},
           {{"log-level", "loud"}, "loud"},
           {{"watch", "--timeout", "nan"}, "--timeout"},
           {{"watch", "--only", "cards"}, "cards"},
           {{"inject", "\xFF"}, "UID"},
           {{"--address", "here", "state"}, "--address"},
       }) {
    Expect(arguments, "exit 2", "", named);
  }
}

TEST_F(Rfidctl, ADaemonThatIsNotThereIsNamedWithTheReason) {
  StopPeers();
  for (const Words& command :
       {Words{"state"}, Words{"inject", "04A12B5C"}, Words{"watch"}, Words{"signals"}}) {
    Expect(command, "exit 3", "", "No such file or directory");
  }
  std::filesystem::remove(Path("etc/plex.json"));
  Expect({"state"}, "exit 3", "", "plex.json");
}

TEST_F(Rfidctl, ASocketWithoutPermissionIsNamed) {
  StartDaemon();
  std::filesystem::permissions(Path("run/rfid.sock"), std::filesystem::perms::none);
  // Root gives up the capabilities that override permissions.
  const auto* const asAnybody =
      "[ \"$(id -u)\" != 0 ] || set -- setpriv --bounding-set=-dac_override,-dac_read_search \"$@\"; exec "
      "\"$@\"";
  EXPECT_EQ(Start({"/bin/sh", "-c", asAnybody, "sh", RFIDCTL_PATH, "--root", mRoot, "state"})->Wait(),
            "exit 3");
  ExpectError("Permission denied");
}

TEST_F(Rfidctl, ADaemonThatDoesNotAnswerIsNamed) {
  StartDaemon();
  mDaemon->Signal(SIGSTOP);
  Expect({"watch", "--timeout", "1"}, "exit 3", "", "does not answer");
  mDaemon->Signal(SIGCONT);
}

TEST_F(Rfidctl, WatchingGoesOnWhenTheDaemonIsRestartedUntilCtrlC) {
  StartDaemon();
  const auto watch = StartCtl({"--json", "watch"});
  const auto out = [this] { return Out(); };
  const auto err = [this] { return Err(); };
  EXPECT_TRUE(Becomes(out, AllOf(HasSubstr(R"("kind":"state")"), HasSubstr(R"("state":"Uninitialized")"))));
  mDaemon->Signal(SIGKILL);
  EXPECT_TRUE(Becomes(err, HasSubstr("is gone")));
  StartDaemon();
  EXPECT_TRUE(Becomes(err, HasSubstr("is back")));
  EnableDaemon();
  EXPECT_TRUE(Becomes(out, HasSubstr(R"("state":"Enabled")")));
  EXPECT_EQ(Interrupt(), "exit 0");
  EXPECT_TRUE(Becomes(err, ::testing::ContainsRegex("is back\n(.*\n)*.*gone")));
  watch->Signal(SIGINT);
  EXPECT_EQ(watch->Wait(), "exit 0");
}

TEST_F(Rfidctl, WatchingEndsWhenNobodyReads) {
  StartDaemon();
  const auto pipe = Start(
      {"/bin/bash", "-c", "set -o pipefail; \"$0\" --root \"$1\" watch | head -1", RFIDCTL_PATH, mRoot});
  EXPECT_EQ(pipe->Wait(), "exit 0");
  EXPECT_THAT(Out(), HasSubstr("state          Uninitialized\n"));  // no terminal: no colour
  ExpectError("");
}
