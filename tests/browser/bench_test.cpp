#include <csignal>

#include "tests/browser/browser.h"
#include "tests/endtoend/daemontest.h"
#include "tools/virtual-nfc/server/controlserver.h"

using namespace virtualnfc;
using ::testing::HasSubstr;

namespace {

const std::string kKnownCard = R"([data-uid="04A12B5C"])";
const std::string kUnknownCard = R"([data-uid="5A3C91F0"])";

/// Lamp, display and the diagram's state show some things for seconds only.
const std::string kKeepWhatIsShown = R"(
  window.shown = new Set();
  const keep = () => {
    shown.add('lamp ' + document.getElementById('post').dataset.lamp);
    shown.add('display ' + document.getElementById('display-title').textContent);
    shown.add('state ' + document.querySelector('.node.current')?.dataset.state);
  };
  const all = { attributes: true, characterData: true, childList: true, subtree: true };
  for (const id of ['post', 'diagram']) new MutationObserver(keep).observe(document.getElementById(id), all);
)";

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
    mBrowser->Run(kKeepWhatIsShown);
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
  bool Says(const std::string& selector, const std::string& text) {
    return mBrowser->Text(selector).find(text) != std::string::npos;
  }
  bool ComesToSay(const std::string& selector, const std::string& text) {
    return Eventually([&] { return Says(selector, text); });
  }

  bool HasShown(const std::string& what) {
    return mBrowser->Run("return shown.has('" + what + "')").asBool();
  }
  /// Does it until this comes of it: a card is held for a moment only, and a daemon that is not scheduled
  /// then does not see it; nor does the bench wait for long for the reader.
  template <typename Action, typename Condition>
  bool Brings(Action action, Condition condition) {
    for (int attempt = 0; attempt < 5; ++attempt) {
      action();
      if (Eventually(condition, std::chrono::seconds(20))) {
        return true;
      }
    }
    return false;
  }
  bool ClickBrings(const std::string& card, const std::string& outcome) {
    return Brings([&] { mBrowser->Click(card); }, [&] { return Says("#outcome", outcome); });
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

  EXPECT_TRUE(ClickBrings(kKnownCard, "04A12B5C: accepted")) << mBrowser->Text("#outcome");
  EXPECT_TRUE(Eventually([&] { return HasShown("lamp accepted") && HasShown("display Welcome!"); }));
  EXPECT_TRUE(ComesToShow("#timeline li:first-child [data-outcome=accepted]"));
  EXPECT_TRUE(ComesToSay("[data-signal='101'] dd", "04A12B5C"));
  EXPECT_TRUE(ComesToSay("#log", "Found Match!"));
  EXPECT_TRUE(ComesToSay("#alive-text", "alive "));

  EXPECT_TRUE(Brings([this] { mBrowser->Type(kUnknownCard, "\uE007"); },
                     [this] { return Says("#outcome", "5A3C91F0: rejected"); }))
      << mBrowser->Text("#outcome");
  EXPECT_TRUE(Eventually([&] { return HasShown("lamp rejected"); }));
  mBrowser->Click("[data-permit='5A3C91F0']");
  EXPECT_TRUE(ComesToShow("[data-permit='5A3C91F0'][aria-pressed=true]"));
  EXPECT_TRUE(Brings([this] { mBrowser->Drag("[data-uid='E007060504030201']", "#reader-zone"); },
                     [this] { return Says("#outcome", "E007060504030201: rejected"); }))
      << mBrowser->Text("#outcome");
  EXPECT_TRUE(ClickBrings("[data-uid='0102030405060708']", "0102030405060708: invalid"))
      << mBrowser->Text("#outcome");
  EXPECT_TRUE(ClickBrings("[data-uid=XYZ]", "XYZ: invalid")) << mBrowser->Text("#outcome");
}

TEST_F(BenchPage, TheSwitchesAndTheReaderDoWhatTheySay) {
  mBrowser->Click("#learning");
  EXPECT_TRUE(ComesToSay("#toast", "The daemon refuses"));
  EXPECT_EQ(mBrowser->Text(".primary"), "Disable");  // what Uninitialized needs
  mBrowser->Click("[data-do=disable]");
  EXPECT_TRUE(ComesToSay(".primary", "Enable"));
  Enable();
  mBrowser->Click("#learning");
  EXPECT_TRUE(ComesToShow("#learning[aria-checked=true]"));
  EXPECT_TRUE(ClickBrings(kUnknownCard, "5A3C91F0: learned")) << mBrowser->Text("#outcome");
  mBrowser->Click("#learning");
  EXPECT_TRUE(ComesToShow("#learning[aria-checked=false]"));

  mBrowser->Click("#ocpp");
  EXPECT_TRUE(ComesToShow("#ocpp[aria-checked=true]"));
  EXPECT_TRUE(ClickBrings(kKnownCard, "04A12B5C: deferred")) << mBrowser->Text("#outcome");
  mBrowser->Click("#free");
  EXPECT_TRUE(ComesToShow("#free[aria-checked=true]"));
  mBrowser->Type("#uid", "\uE007");  // as it stands there, injected
  EXPECT_TRUE(ComesToSay("#outcome", "04A1B2C3: scanned")) << mBrowser->Text("#outcome");

  EXPECT_TRUE(Brings([this] { mBrowser->Click("[data-do=fault]"); },
                     [this] { return Says("#toast", "The reader fails"); }));
  EXPECT_TRUE(Brings([this] { mBrowser->Click("[data-uid='04C2B7A25E6180']"); },
                     [this] { return HasShown("state Error"); }))
      << mBrowser->Text("body");
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
  EXPECT_TRUE(ClickBrings(kKnownCard, "04A12B5C: no answer")) << mBrowser->Text("#outcome");

  StartRfidd();
  EXPECT_TRUE(IsIn("Uninitialized"));
  EXPECT_TRUE(Eventually([&] { return !mBrowser->Shows("#banner"); })) << mBrowser->Text("#banner");
  Enable();
  EXPECT_TRUE(ClickBrings(kKnownCard, "04A12B5C: accepted")) << mBrowser->Text("#outcome");
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
