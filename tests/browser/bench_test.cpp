#include <csignal>

#include "browser.h"
#include "controlserver.h"
#include "endtoend/daemontest.h"

using namespace virtualnfc;
using ::testing::HasSubstr;

namespace {

const std::string cKnownCard = R"([data-uid="04A12B5C"])";
const std::string cUnknownCard = R"([data-uid="5A3C91F0"])";

/// The bench's page in a browser, the bench and the daemon as processes of their own.
class BenchPage : public DaemonTest {
 protected:
  void SetUp() override {
    WriteFile("hub/rfid_standalone.json", R"({"Tokens": [{"RfidTokenUid": "04A12B5C"}]})");
    StartRfidd();
    StartBench("0");
    mBrowser = std::make_unique<Browser>(mRoot);
    mBrowser->Open(mUrl);
    ASSERT_TRUE(mBrowser->Run("return document.readyState").isString());
    ASSERT_TRUE(IsIn("Uninitialized")) << mBrowser->Text("body");
  }

  void StartRfidd() { mDaemon = Spawn({"-vv", "-r", mRoot.string() + "/"}); }

  void StartBench(const std::string& port) {
    mBench.reset();
    mBench = std::make_unique<Process>(
        std::vector<std::string>{STATION_PATH, "--root", mRoot, "bench", "--nfc", mKernel->Address(), "--log",
                                 Path("log"), "--port", port},
        std::map<std::string, std::string>{}, Path("bench.out"), Path("bench.err"));
    ASSERT_TRUE(Eventually([&] { return ReadFile(Path("bench.out")).find('\n') != std::string::npos; }))
        << ReadFile(Path("bench.err"));
    mUrl = ReadFile(Path("bench.out"));
    mUrl.pop_back();
  }

  /// The diagram comes to light this state, and no other.
  bool IsIn(const std::string& state) {
    return Eventually([&] {
      return mBrowser->Run(
                 "return [...document.querySelectorAll('.node.current')].map(n => n.dataset.state).join()") ==
             state;
    });
  }
  bool ComesToShow(const std::string& selector) {
    return Eventually([&] { return mBrowser->Shows(selector); });
  }
  bool ComesToSay(const std::string& selector, const std::string& text) {
    return Eventually([&] { return mBrowser->Text(selector).find(text) != std::string::npos; });
  }

  void Enable() {
    mBrowser->Click("[data-do=disable]");
    ASSERT_TRUE(IsIn("Disabled")) << mBrowser->Text("body");
    mBrowser->Click("[data-do=enable]");
    ASSERT_TRUE(IsIn("Enabled")) << mBrowser->Text("body");
  }

  const ControlServer mControl{*mKernel};
  std::unique_ptr<Process> mBench;
  std::string mUrl;
  std::unique_ptr<Browser> mBrowser;
};

}  // namespace

TEST_F(BenchPage, ACardThatIsTappedShowsItsOutcomeToDriverAndEngineer) {
  Enable();
  EXPECT_THAT(mBrowser->Text("#transition"),
              HasSubstr("Disabled → ExtEnableReq → Enabling → IntEnablingDone → Enabled"));
  EXPECT_EQ(mBrowser->Run("return document.querySelectorAll('.edge.last').length"), 2);

  mBrowser->Click(cKnownCard);
  EXPECT_TRUE(ComesToSay("#outcome", "04A12B5C: accepted")) << mBrowser->Text("#outcome");
  EXPECT_TRUE(ComesToShow("#post[data-lamp=accepted]"));
  EXPECT_TRUE(ComesToSay("#display-title", "Welcome!"));
  EXPECT_TRUE(ComesToShow("#timeline li:first-child [data-outcome=accepted]"));
  EXPECT_TRUE(ComesToSay("[data-signal='101'] dd", "04A12B5C"));
  EXPECT_TRUE(ComesToSay("#log", "Found Match!"));
  EXPECT_TRUE(ComesToSay("#alive-text", "alive "));

  mBrowser->Type(cUnknownCard, "\uE007");
  EXPECT_TRUE(ComesToSay("#outcome", "5A3C91F0: rejected")) << mBrowser->Text("#outcome");
  EXPECT_TRUE(ComesToShow("#post[data-lamp=rejected]"));
  mBrowser->Click("[data-permit='5A3C91F0']");
  EXPECT_TRUE(ComesToShow("[data-permit='5A3C91F0'][aria-pressed=true]"));
  mBrowser->Drag("[data-uid='E007060504030201']", "#reader-zone");
  EXPECT_TRUE(ComesToSay("#outcome", "E007060504030201: rejected")) << mBrowser->Text("#outcome");
  mBrowser->Click("[data-uid='0102030405060708']");
  EXPECT_TRUE(ComesToSay("#outcome", "0102030405060708: invalid")) << mBrowser->Text("#outcome");
  mBrowser->Click("[data-uid=XYZ]");
  EXPECT_TRUE(ComesToSay("#outcome", "XYZ: invalid")) << mBrowser->Text("#outcome");
}

TEST_F(BenchPage, TheSwitchesAndTheReaderDoWhatTheySay) {
  mBrowser->Click("#learning");
  EXPECT_TRUE(ComesToSay("#toast", "The daemon refuses"));
  Enable();
  mBrowser->Click("#learning");
  EXPECT_TRUE(ComesToShow("#learning[aria-checked=true]"));
  mBrowser->Click(cUnknownCard);
  EXPECT_TRUE(ComesToSay("#outcome", "5A3C91F0: learned")) << mBrowser->Text("#outcome");
  mBrowser->Click("#learning");
  EXPECT_TRUE(ComesToShow("#learning[aria-checked=false]"));

  mBrowser->Click("#ocpp");
  EXPECT_TRUE(ComesToShow("#ocpp[aria-checked=true]"));
  mBrowser->Click(cKnownCard);
  EXPECT_TRUE(ComesToSay("#outcome", "04A12B5C: deferred")) << mBrowser->Text("#outcome");
  mBrowser->Click("#free");
  EXPECT_TRUE(ComesToShow("#free[aria-checked=true]"));
  mBrowser->Type("#uid", "\uE007");  // as it stands there, injected
  EXPECT_TRUE(ComesToSay("#outcome", "04A1B2C3: scanned")) << mBrowser->Text("#outcome");

  mBrowser->Click("[data-do=fault]");
  EXPECT_TRUE(ComesToSay("#toast", "The reader fails"));
  mBrowser->Click("[data-uid='04C2B7A25E6180']");
  EXPECT_TRUE(ComesToShow("[data-state=Error].current")) << mBrowser->Text("body");
  EXPECT_TRUE(IsIn("Disabled")) << mBrowser->Text("body");
  mBrowser->Click("#plug");
  EXPECT_TRUE(ComesToSay("#reader-text", "reader unplugged"));
  mBrowser->Click("#plug");
  EXPECT_TRUE(ComesToSay("#reader-text", "nfc0"));
}

TEST_F(BenchPage, ADaemonThatIsKilledIsMissedAndFoundAgain) {
  Enable();
  EXPECT_FALSE(mBrowser->Shows("#banner"));
  mDaemon->Signal(SIGKILL);
  EXPECT_TRUE(ComesToShow("#banner"));
  EXPECT_THAT(mBrowser->Text("#banner"), HasSubstr("The daemon is gone"));
  EXPECT_TRUE(IsIn(""));
  mBrowser->Click(cKnownCard);
  EXPECT_TRUE(ComesToSay("#outcome", "04A12B5C: no answer")) << mBrowser->Text("#outcome");

  StartRfidd();
  EXPECT_TRUE(IsIn("Uninitialized"));
  EXPECT_TRUE(Eventually([&] { return !mBrowser->Shows("#banner"); })) << mBrowser->Text("#banner");
  Enable();
  mBrowser->Click(cKnownCard);
  EXPECT_TRUE(ComesToSay("#outcome", "04A12B5C: accepted")) << mBrowser->Text("#outcome");
}

TEST_F(BenchPage, ABenchThatEndsIsMissedAndFoundAgain) {
  mBench->Signal(SIGINT);
  EXPECT_EQ(mBench->Wait(), "exit 0");
  EXPECT_TRUE(ComesToShow("#banner"));
  EXPECT_THAT(mBrowser->Text("#banner"), HasSubstr("The bench does not answer"));
  StartBench(mUrl.substr(mUrl.rfind(':') + 1, mUrl.size() - mUrl.rfind(':') - 2));
  EXPECT_TRUE(Eventually([&] { return !mBrowser->Shows("#banner"); })) << mBrowser->Text("#banner");
  Enable();
}
