#include "framework/rpcconfig.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "rpctesting.h"

namespace {

using rpctesting::Root;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

std::string ErrorOf(const std::string& path) {
  try {
    RpcConfig::Load(path);
  } catch (const Rpc::ConfigurationException& e) {
    return e.what();
  }
  return "no error";
}

std::string WithListen(const std::string& listen, const std::string& more = "") {
  return R"({"listen": ")" + listen + R"(", "configuration": "hub")" + more + "}";
}

TEST(RpcConfig, RelativePathsStartAtTheRoot) {
  const Root root;
  const RpcConfig config = RpcConfig::Load(root.Configure(
      R"({"listen": "unix:run/rfid/../rfid.sock", "allowRemote": false,
          "peers": {"Feedback": "unix:/run/feedback.sock", "Diagnostics": "station.example:4000"},
          "configuration": "var/lib/hub"})"));
  EXPECT_EQ(config.listen, "unix:" + root.At("run/rfid.sock"));
  EXPECT_EQ(config.peers.at("Feedback"), "unix:/run/feedback.sock");
  EXPECT_EQ(config.peers.at("Diagnostics"), "station.example:4000");
  EXPECT_EQ(config.configuration, root.At("var/lib/hub"));
}

TEST(RpcConfig, ListensOnOtherThanLoopbackOnlyIfTheFileAllowsIt) {
  const Root root;
  for (const char* address : {"127.0.0.1:5000", "127.9.8.7:5000", "localhost:5000", "[::1]:5000"}) {
    EXPECT_EQ(RpcConfig::Load(root.Configure(WithListen(address))).listen, address);
  }
  for (const char* address :
       {"0.0.0.0:5000", "192.168.0.1:5000", "[::]:5000", "127.example:5000", "128.0.0.1:5000"}) {
    EXPECT_THAT(ErrorOf(root.Configure(WithListen(address))),
                AllOf(HasSubstr(": listen: "), HasSubstr("allowRemote")))
        << address;
    EXPECT_EQ(RpcConfig::Load(root.Configure(WithListen(address, R"(, "allowRemote": true)"))).listen,
              address);
  }
}

TEST(RpcConfig, ErrorsNameFileKeyAndReasonInOneLine) {
  struct Case {
    std::string text;
    std::string where;
    std::string reason;
  };
  const std::vector<Case> cases{
      {"", "line 1, column 1", ""},
      {"{\n  \"listen\": ,\n}", "line 2, column 13", ""},
      {"[]", "line 1, column 1", "object"},
      {WithListen("unix:a") + " x", "line 1, column", "Extra"},
      {"// note\n" + WithListen("unix:a"), "line 1, column 1", ""},
      {"{ /* note */" + WithListen("unix:a").substr(1), "line 1, column 3", "Comment"},
      {WithListen("unix:a", ", \"peers\": {},"), "line 1, column", ""},
      {WithListen("unix:a", R"(, "listen": "unix:b")"), "line 1, column", "uplicate"},
      {std::string(500, '['), "", "Exceeded"},
      {WithListen("unix:a", ",\n\"x\": 007"), "line 2, column 6", "Malformed number"},
      {WithListen("unix:a", ", \"x\": -"), "line 1, column", "Malformed number"},
      {WithListen("unix:a", ", \"x\": 1."), "line 1, column", "Malformed number"},
      {WithListen("unix:a", ", \"x\": 1e+"), "line 1, column", "not a number"},
      {WithListen("unix:a", ", \"x\": -0.5e-3"), "'x'", "unknown key"},
      {WithListen("unix:a") + std::string(1, '\0') + "{", "line 1, column", "NUL"},
      {R"({"configuration": "hub"})", "listen", "missing"},
      {R"({"listen": "unix:a"})", "configuration", "missing"},
      {R"({"listen": 7, "configuration": "hub"})", "listen", "must be a string, is a number"},
      {R"({"listen": null, "configuration": "hub"})", "listen", "must be a string, is null"},
      {R"({"listen": "unix:a", "configuration": ["hub"]})", "configuration", "must be a string, is an array"},
      {R"({"listen": "unix:a", "configuration": ""})", "configuration", "empty"},
      {R"({"listen": "unix:a", "configuration": "a\u0000b"})", "configuration", "control characters"},
      {WithListen("unix:a", R"(, "lisen": "b")"), "'lisen'", "unknown key"},
      {WithListen("unix:a", R"(, "new\nline": "b")"), "'new?line'", "unknown key"},
      {WithListen("unix:a", R"(, "allowRemote": "yes")"), "allowRemote", "must be a boolean, is a string"},
      {WithListen("unix:a", R"(, "peers": [])"), "peers", "must be an object, is an array"},
      {WithListen("unix:a", R"(, "peers": {"Feedback": true})"), "peers.Feedback",
       "must be a string, is a boolean"},
      {WithListen("unix:a", R"(, "peers": {"": "unix:b"})"), "peers.''", "no name"},
      {WithListen("unix:a", R"(, "peers": {"a\nb": true})"), "peers.a?b", "must be a string"},
      {WithListen("unix:a", R"(, "peers": {"Feedback": "here"})"), "peers.Feedback",
       "neither unix:PATH nor HOST:PORT"},
      {WithListen("unix:"), "listen", "empty"},
      {WithListen("unix:run/"), "listen", "names a folder"},
      {WithListen("unix:" + std::string(120, 'x')), "listen", "the limit is"},
      {WithListen("unix:/" + std::string(100, 'x') + "/s"), "listen", "too long"},
      {WithListen("localhost"), "listen", "neither unix:PATH nor HOST:PORT"},
      {WithListen("::1:5000"), "listen", "neither unix:PATH nor HOST:PORT"},
      {WithListen("localhost:0"), "listen", "not in 1 to 65535"},
      {WithListen("localhost:65536"), "listen", "not in 1 to 65535"},
      {WithListen("localhost:-5"), "listen", "not in 1 to 65535"},
      {WithListen("localhost:"), "listen", "not in 1 to 65535"},
  };
  const Root root;
  for (const Case& c : cases) {
    EXPECT_THAT(ErrorOf(root.Configure(c.text)), AllOf(HasSubstr(root.ConfigPath() + ": " + c.where),
                                                       HasSubstr(c.reason), Not(HasSubstr("\n"))))
        << c.text;
  }
}

TEST(RpcConfig, AFileThatCannotBeReadIsNamed) {
  const Root root;
  EXPECT_THAT(ErrorOf(root.ConfigPath()), AllOf(HasSubstr(root.ConfigPath()), HasSubstr("No such file")));
  EXPECT_THAT(ErrorOf(root.At("etc")), HasSubstr("it is a folder"));
  EXPECT_THAT(ErrorOf(root.Configure(std::string(2 * 1024 * 1024, ' '))), HasSubstr("larger than"));
  if (geteuid() != 0) {
    std::filesystem::permissions(root.Listen(), std::filesystem::perms::none);
    EXPECT_THAT(ErrorOf(root.ConfigPath()), HasSubstr("Permission denied"));
  }
}

}  // namespace
