#include "tests/endtoend/daemontest.h"

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

class CommandLine : public DaemonTest {
 protected:
  std::string Run(const std::vector<std::string>& arguments) {
    return Spawn(arguments)->Wait().value_or("still running");
  }
  std::string Output() const { return ReadFile(Path("output")); }
};

}  // namespace

TEST_F(CommandLine, UnknownArgumentsPrintTheUsageAndExitWithOne) {
  const std::string usage =
      " [OPTION]\n"
      "  -v, --verbose    increase verbosity\n"
      "  -q, --quiet      disable logging to console\n"
      "  -r, --root=PATH  set the filesystem root directory\n"
      "                   defaults to '/'\n"
      "  -h, --help       show this help message and exit\n"
      "\n";
  struct Case {
    std::vector<std::string> arguments;
    const char* diagnostic;
  };
  for (const auto& c : std::vector<Case>{{{"-h"}, ""},
                                         {{"--help"}, ""},
                                         {{"-s"}, ""},
                                         {{"-x"}, "invalid option -- 'x'"},
                                         {{"-q", "-v", "-x"}, "invalid option -- 'x'"},
                                         {{"--nonsense"}, "unrecognized option '--nonsense'"},
                                         {{"-r"}, "option requires an argument -- 'r'"},
                                         {{"word", "-h"}, ""}}) {
    SCOPED_TRACE(c.arguments.front());
    EXPECT_EQ(Run(c.arguments), "exit 1");
    EXPECT_THAT(Output(), AllOf(::testing::StartsWith("usage: "), EndsWith(usage)));
    if (*c.diagnostic == '\0') {
      EXPECT_THAT(Log(), IsEmpty());
    } else {
      EXPECT_THAT(Log(), EndsWith(std::string(c.diagnostic) + "\n"));
    }
  }
  EXPECT_EQ(Run({"-r", "/opt/x", "-h"}), "exit 1");
  EXPECT_THAT(Output(), HasSubstr("defaults to '/opt/x'\n"));
}

TEST_F(CommandLine, ABrokenRpcConfigurationIsOneCriticalLineAndAnAbort) {
  for (const auto& [content, named] : std::vector<std::pair<const char*, const char*>>{
           {R"({"listen": 7, "configuration": "hub"})", "listen"},
           {R"({"listen": "unix:run/rfid.sock", "configuration": "hub"})", "Feedback"}}) {
    SCOPED_TRACE(content);
    WriteFile("etc/plex.json", content);
    EXPECT_EQ(Run({"--root=" + mRoot.string() + "/"}), "signal 6");
    const auto log = Log();
    EXPECT_THAT(log,
                AllOf(HasSubstr("critical"), HasSubstr("Uncaught exception of type"),
                      HasSubstr("Aborting process."), HasSubstr(Path("etc/plex.json")), HasSubstr(named)));
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
  }
  std::filesystem::remove(Path("etc/plex.json"));
  EXPECT_EQ(Run({"-r", mRoot.string() + "/"}), "signal 6");
  EXPECT_THAT(Log(), HasSubstr(Path("etc/plex.json")));
  EXPECT_EQ(Run({"-r", mRoot.string()}), "signal 6");  // the root is a plain prefix
  EXPECT_THAT(Log(), HasSubstr(mRoot.string() + "etc/plex.json"));
}

TEST_F(CommandLine, EachVerboseShowsMoreAndQuietSilencesTheConsole) {
  struct Case {
    std::vector<std::string> arguments;
    bool info, debug, trace;
  };
  for (const auto& c : std::vector<Case>{{{}, true, false, false},
                                         {{"-v"}, true, true, false},
                                         {{"-vv"}, true, true, true},
                                         {{"--verbose", "-v", "-v"}, true, true, true},
                                         {{"-vv", "-q"}, false, false, false}}) {
    StartDaemon(c.arguments);
    EnableDaemon();
    EXPECT_EQ(Interrupt(), "exit 0");
    const auto log = Log();
    EXPECT_EQ(log.find("Polling started.") != std::string::npos, c.info);
    EXPECT_EQ(log.find("NFC Netlink MCast ID: 3") != std::string::npos, c.debug);
    EXPECT_EQ(log.find("State Enabling: event recv IntEnablingDone") != std::string::npos, c.trace);
    if (!c.info) {
      EXPECT_THAT(log, IsEmpty());
    }
    mSupervisor.reset();
    mDaemon.reset();
  }
}
