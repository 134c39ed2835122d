#include "tests/endtoend/daemontest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

/// A Python client, generated from the files as they are installed.
class OtherLanguage : public DaemonTest {
 protected:
  OtherLanguage() {
    Run({CMAKE_PROGRAM, "--install", BUILD_FOLDER, "--component", "protocols", "--prefix", Path("installed")},
        {});
  }

  /// Generates the client as the manual says.
  void Generate() {
    const auto generated = Path("generated");
    const auto protos = Path("installed/share/rfidd/proto");
    std::filesystem::create_directory(generated);
    std::vector<std::string> protoc{PROTOC_PROGRAM,
                                    "--python_out=" + generated,
                                    "--grpc_out=" + generated,
                                    std::string("--plugin=protoc-gen-grpc=") + PYTHON_PLUGIN,
                                    "-I",
                                    protos};
    for (const auto& file : std::filesystem::recursive_directory_iterator(protos)) {
      if (file.is_regular_file()) {
        protoc.push_back(file.path());
      }
    }
    Run(protoc, {});
  }

  std::string Run(const std::vector<std::string>& command,
                  const std::map<std::string, std::string>& environment) const {
    Process process(command, environment, Path("client.out"), Path("client.err"));
    EXPECT_EQ(process.Wait(std::chrono::minutes(5)).value_or("still running"), "exit 0")
        << ReadFile(Path("client.err"));
    return ReadFile(Path("client.out"));
  }

  std::string Address(const std::string& socket) const { return "unix:" + Path("run/" + socket); }
};

}  // namespace

TEST_F(OtherLanguage, EveryMethodCanBeCalled) {
  StartDaemon();
  EXPECT_THAT(Run({PYTHON_PROGRAM, Path("installed/share/doc/rfidd/examples/every_method.py"),
                   Address("rfid.sock"), Address("feedback.sock"), Address("diagnostics.sock")},
                  {}),
              HasSubstr("every method was called"));
  EXPECT_THAT(mPeers->SignalValues(ipc::ESignalNone), ElementsAre("1.5", "1.5", "2.5"));
}

TEST_F(OtherLanguage, TheExampleOfTheManualWorksAsItIsPrinted) {
  const auto manual = ReadFile(MANUAL);
  const auto begin = manual.find("```python\n") + 10;
  WriteFile("example.py", manual.substr(begin, manual.find("```", begin) - begin));
  Generate();
  StartDaemon();
  const auto output =
      Run({PYTHON_PROGRAM, Path("example.py"), Address("rfid.sock")}, {{"PYTHONPATH", Path("generated")}});
  EXPECT_THAT(output, HasSubstr("EStateEnabled"));
  EXPECT_THAT(output, HasSubstr("04A12B5C ERfidUidNotInList"));
}
