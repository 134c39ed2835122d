#include <csignal>

#include "tests/endtoend/daemontest.h"
#include "tools/harness/browser.h"

using namespace virtualnfc;
using ::testing::HasSubstr;

namespace {

const std::string kKnownCard = R"([data-uid="04A12B5C"])";
const std::string kUnknownCard = R"([data-uid="5A3C91F0"])";

/// Collects what the lamp, the display and the diagram show only for seconds.
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

/// The bench's page in a browser. The bench and the daemon are processes.
class BenchPage : public DaemonTest {
 protected:
  void SetUp() override {
    WriteFile("hub/rfid_standalone.json", R"({"Tokens": [{"RfidTokenUid": "04A12B5C"}]})");
    mUrl = StartBench();
    StartRfidd();
    mBrowser = std::make_unique<Browser>(mRoot);
    mBrowser->Open(mUrl);
    ASSERT_TRUE(mBrowser->Run("return document.readyState").isString());
    mBrowser->Run(kKeepWhatIsShown);
    ASSERT_TRUE(IsIn("Uninitialized")) << mBrowser->Text("body");
  }

  void StartRfidd() { mDaemon = Spawn({"-vv", "-r", mRoot.string() + "/"}); }

  using Result = ::testing::AssertionResult;

  /// Waits until the diagram highlights this state and no other.
  Result IsIn(const std::string& state) {
    const auto highlighted = [&] {
      return mBrowser
          ->Run("return [...document.querySelectorAll('.node.current')].map(n => n.dataset.state).join()")
          .asString();
    };
    return Becomes(highlighted, state);
  }
  Result ComesToShow(const std::string& selector, bool shows = true) {
    return Becomes([&] { return mBrowser->Shows(selector); }, shows) << " (" << selector << ")";
  }
  Result ComesToSay(const std::string& selector, const std::string& text,
                    std::chrono::seconds timeout = kLongestWait) {
    return Becomes([&] { return mBrowser->Text(selector); }, HasSubstr(text), timeout);
  }
  Result ComesToHaveShown(const std::string& what, std::chrono::seconds timeout = kLongestWait) {
    return Becomes([&] { return mBrowser->Run("return [...shown].join('\\n')").asString(); }, HasSubstr(what),
                   timeout);
  }

  /// Repeats the action until the check holds. A card is held only for a moment, and the daemon misses it if
  /// it is not scheduled just then.
  template <typename Action, typename Check>
  Result Brings(Action action, Check check) {
    for (int attempt = 0; attempt < 5; ++attempt) {
      action();
      if (Result result = check(std::chrono::seconds(20)); result || attempt == 4) {
        return result;
      }
    }
    return ::testing::AssertionFailure();
  }
  template <typename Action>
  Result BringsOutcome(Action action, const std::string& outcome) {
    return Brings(action, [&](auto timeout) { return ComesToSay("#outcome", outcome, timeout); });
  }
  Result ClickBrings(const std::string& card, const std::string& outcome) {
    return BringsOutcome([&] { mBrowser->Click(card); }, outcome);
  }

  void Enable() {
    mBrowser->Click("[data-do=disable]");
    ASSERT_TRUE(IsIn("Disabled")) << mBrowser->Text("body");
    mBrowser->Click("[data-do=enable]");
    ASSERT_TRUE(IsIn("Enabled")) << mBrowser->Text("body");
  }

  std::string mUrl;
  std::unique_ptr<Browser> mBrowser;
};

}  // namespace

TEST_F(BenchPage, ACardThatIsTappedShowsItsOutcomeToDriverAndEngineer) {
  Enable();
  EXPECT_THAT(mBrowser->Text("#transition"),
              HasSubstr("Disabled → ExtEnableReq → Enabling → IntEnablingDone → Enabled"));
  EXPECT_EQ(mBrowser->Run("return document.querySelectorAll('.last .edge').length"), 2);

  EXPECT_TRUE(ClickBrings(kKnownCard, "04A12B5C: accepted"));
  EXPECT_TRUE(ComesToHaveShown("lamp accepted"));
  EXPECT_TRUE(ComesToHaveShown("display Welcome!"));
  EXPECT_TRUE(ComesToShow("#timeline li:first-child [data-outcome=accepted]"));
  EXPECT_TRUE(ComesToSay("[data-signal='101'] dd", "04A12B5C"));
  EXPECT_TRUE(ComesToSay("#log", "Found Match!"));
  EXPECT_TRUE(ComesToSay("#alive-text", "alive "));

  EXPECT_TRUE(BringsOutcome([this] { mBrowser->Type(kUnknownCard, "\uE007"); }, "5A3C91F0: rejected"));
  EXPECT_TRUE(ComesToHaveShown("lamp rejected"));
  mBrowser->Click("[data-permit='5A3C91F0']");
  EXPECT_TRUE(ComesToShow("[data-permit='5A3C91F0'][aria-pressed=true]"));
  EXPECT_TRUE(ClickBrings("[data-uid='E007060504030201']", "E007060504030201: rejected"));
  EXPECT_TRUE(ClickBrings("[data-uid='0102030405060708']", "0102030405060708: invalid"));
  EXPECT_TRUE(ClickBrings("[data-uid=XYZ]", "XYZ: invalid"));
}

TEST_F(BenchPage, TheSwitchesDoWhatTheySay) {
  mBrowser->Click("#learning");
  EXPECT_TRUE(ComesToSay("#toast", "The daemon refuses"));
  EXPECT_EQ(mBrowser->Text(".primary"), "Disable");  // what Uninitialized needs
  mBrowser->Click("[data-do=disable]");
  EXPECT_TRUE(ComesToSay(".primary", "Enable"));
  Enable();
  mBrowser->Click("#learning");
  EXPECT_TRUE(ComesToShow("#learning[aria-checked=true]"));
  EXPECT_TRUE(ClickBrings(kUnknownCard, "5A3C91F0: learned"));
  mBrowser->Click("#learning");
  EXPECT_TRUE(ComesToShow("#learning[aria-checked=false]"));

  mBrowser->Click("#ocpp");
  EXPECT_TRUE(ComesToShow("#ocpp[aria-checked=true]"));
  EXPECT_TRUE(ClickBrings(kKnownCard, "04A12B5C: deferred"));
  mBrowser->Click("#free");
  EXPECT_TRUE(ComesToShow("#free[aria-checked=true]"));
  mBrowser->Type("#uid", "\uE007");  // as shown, injected
  EXPECT_TRUE(ComesToSay("#outcome", "04A1B2C3: scanned"));
}

TEST_F(BenchPage, ThePageShowsAReaderThatFailsOrIsUnplugged) {
  Enable();
  EXPECT_TRUE(Brings([this] { mBrowser->Click("[data-do=fault]"); },
                     [this](auto timeout) { return ComesToSay("#toast", "The reader fails", timeout); }));
  EXPECT_TRUE(Brings([this] { mBrowser->Click("[data-uid='04C2B7A25E6180']"); },
                     [this](auto timeout) { return ComesToHaveShown("state Error", timeout); }));
  EXPECT_TRUE(IsIn("Disabled")) << mBrowser->Text("body");
  mBrowser->Click("#plug");
  EXPECT_TRUE(ComesToSay("#reader-text", "reader unplugged"));
  mBrowser->Click("#plug");
  EXPECT_TRUE(ComesToSay("#reader-text", "nfc0"));
}

TEST_F(BenchPage, ThePageReportsADaemonThatIsKilledAndFollowsTheNext) {
  Enable();
  EXPECT_FALSE(mBrowser->Shows("#banner"));
  mDaemon->Signal(SIGKILL);
  EXPECT_TRUE(ComesToShow("#banner"));
  EXPECT_THAT(mBrowser->Text("#banner"), HasSubstr("The daemon is gone"));
  EXPECT_TRUE(IsIn(""));
  EXPECT_TRUE(ClickBrings(kKnownCard, "04A12B5C: no answer"));

  StartRfidd();
  EXPECT_TRUE(IsIn("Uninitialized"));
  EXPECT_TRUE(ComesToShow("#banner", false)) << mBrowser->Text("#banner");
  Enable();
  EXPECT_TRUE(ClickBrings(kKnownCard, "04A12B5C: accepted"));
}

TEST_F(BenchPage, ThePageReportsABenchThatEndsAndFollowsTheNext) {
  mBench->Signal(SIGINT);
  EXPECT_EQ(mBench->Wait(), "exit 0");
  EXPECT_TRUE(ComesToShow("#banner"));
  EXPECT_THAT(mBrowser->Text("#banner"), HasSubstr("The bench does not answer"));
  StartBench(mUrl.substr(mUrl.rfind(':') + 1, mUrl.size() - mUrl.rfind(':') - 2));
  EXPECT_TRUE(ComesToShow("#banner", false)) << mBrowser->Text("#banner");
  Enable();
}
