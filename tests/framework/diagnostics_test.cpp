#include "framework/diagnostics.h"

#include <gmock/gmock.h>

#include <atomic>
#include <vector>

#include "diagnosticstransport.h"
#include "evidence.h"
#include "rpctesting.h"

namespace {

using namespace rpctesting;
using testing::ElementsAre;

/// A diagnostics peer that can be away or hang.
class Peer final : public IDiagnosticsTransport {
 public:
  bool Deliver(const ipc::MSignals& signals) override {
    if (mHangs) {
      mGate.Pass();
    }
    mCalls.Put(signals.signals_size());
    if (!mPresent) {
      mRefused.Put(signals.signals(0).value());
      if (mThrows) {
        throw std::runtime_error("no peer");
      }
      return false;
    }
    for (const ipc::MSignal& signal : signals.signals()) {
      mReceived.Put(std::to_string(signal.id()) + "=" + signal.value());
    }
    return true;
  }
  void OnPeerLost(const std::function<void()>& lost) override { mLost = lost; }
  void Cancel() override {
    if (mObeysCancel) {
      mGate.Open();
    }
  }

  std::vector<std::string> Receive(int count) {
    std::vector<std::string> values;
    for (int i = 0; i < count; ++i) {
      values.push_back(mReceived.Take().value_or("nothing"));
    }
    return values;
  }

  std::atomic<bool> mPresent{true};
  std::atomic<bool> mThrows{false};
  std::atomic<bool> mHangs{false};
  std::atomic<bool> mObeysCancel{true};
  Gate mGate;
  Mailbox<std::string> mReceived;
  Mailbox<std::string> mRefused;
  Mailbox<int> mCalls;  // the number of values in each
  std::function<void()> mLost;
};

// The latest value of a signal lives as long as the process, so every test has its own signals.
class DiagnosticsTest : public testing::Test {
 protected:
  DiagnosticsTest() {
    static int sNext = 1000;
    mFirst.id = static_cast<ipc::ESignalIdentifier>(sNext++);
    mSecond.id = static_cast<ipc::ESignalIdentifier>(sNext++);
  }
  ~DiagnosticsTest() override { CDiagnosticsCommClient::Terminate(); }

  std::string First(const std::string& value) const { return std::to_string(mFirst.id) + "=" + value; }
  std::string Second(const std::string& value) const { return std::to_string(mSecond.id) + "=" + value; }

  // Skips the values of earlier tests.
  void Start() {
    mPeer->mReceived.Put("");
    CDiagnosticsSignal<std::string> marker(&mFirst);
    marker.Send("start");
    CDiagnosticsCommClient::Initialize(mPeer);
    ASSERT_TRUE(Becomes([&] { return mPeer->Receive(1)[0]; }, First("start")));
  }

  CSignalDefinition<std::string> mFirst{ipc::ESignalNone, "first", "default", ""};
  CSignalDefinition<std::string> mSecond{ipc::ESignalNone, "second", "", ""};
  const std::shared_ptr<Peer> mPeer = std::make_shared<Peer>();
};

TEST_F(DiagnosticsTest, TheLatestValuesSentBeforeInitializeArrive) {
  CDiagnosticsSignal<std::string> first(&mFirst);
  CDiagnosticsSignal<std::string> second(&mSecond);
  second.Send("a");
  first.Send();
  second.Send("b");
  CDiagnosticsCommClient::Initialize(mPeer);
  ASSERT_TRUE(Becomes([&] { return mPeer->Receive(1)[0]; }, First("default")));
  EXPECT_THAT(mPeer->Receive(1), ElementsAre(Second("b")));
}

TEST_F(DiagnosticsTest, APeerThatIsBackGetsTheLatestOfEverySignal) {
  ASSERT_NO_FATAL_FAILURE(Start());
  CDiagnosticsSignal<std::string> first(&mFirst);
  CDiagnosticsSignal<std::string> second(&mSecond);
  second.Send("unchanged");
  ASSERT_THAT(mPeer->Receive(1), ElementsAre(Second("unchanged")));
  for (const bool throws : {false, true}) {
    while (mPeer->mRefused.Take(Clock::duration::zero())) {  // there may be more than one
    }
    mPeer->mThrows = throws;
    mPeer->mPresent = false;
    first.Send("1");
    first.Send("2");
    first.Send("3");
    ASSERT_NE(mPeer->mRefused.Take(), std::nullopt);
    mPeer->mPresent = true;
    ASSERT_TRUE(Becomes([&] { return mPeer->Receive(1)[0]; }, Second("unchanged")));
    EXPECT_THAT(mPeer->Receive(1), ElementsAre(First("3")));
  }
}

TEST_F(DiagnosticsTest, ASlowPeerGetsTheLatestValues) {
  ASSERT_NO_FATAL_FAILURE(Start());
  CDiagnosticsSignal<std::string> first(&mFirst);
  mPeer->mHangs = true;
  first.Send("0");
  ASSERT_TRUE(mPeer->mGate.AwaitWaiting(1));
  for (int i = 1; i <= 1000; ++i) {
    first.Send(std::to_string(i));
  }
  mPeer->mGate.Open();
  int values = 0;
  while (mPeer->Receive(1)[0] != First("1000")) {
    ASSERT_LT(++values, 500);
  }
}

TEST_F(DiagnosticsTest, APeerThatLeftWhileIdleGetsEverythingAgain) {
  ASSERT_NO_FATAL_FAILURE(Start());
  mPeer->mPresent = false;
  mPeer->mLost();
  ASSERT_NE(mPeer->mRefused.Take(), std::nullopt);
  mPeer->mPresent = true;
  EXPECT_TRUE(Becomes([&] { return mPeer->Receive(1)[0]; }, First("start")));

  const auto former = mPeer->mLost;
  CDiagnosticsCommClient::Terminate();
  former();  // too late: does nothing
}

TEST_F(DiagnosticsTest, ValuesSentTogetherLeaveInOneCallInOrder) {
  ASSERT_NO_FATAL_FAILURE(Start());
  mPeer->mHangs = true;
  CDiagnosticsSignal<std::string> first(&mFirst);
  CDiagnosticsSignal<std::string> second(&mSecond);
  first.Send("0");
  ASSERT_TRUE(mPeer->mGate.AwaitWaiting(1));
  while (mPeer->mCalls.Take(Clock::duration::zero())) {  // of earlier values
  }
  first.Send("1");
  second.Send("2");
  first.Send("3");
  first.Send();
  mPeer->mGate.Open();
  EXPECT_THAT(mPeer->Receive(5), ElementsAre(First("0"), First("1"), Second("2"), First("3"), First("3")));
  EXPECT_EQ(mPeer->mCalls.Take(), 1);
  EXPECT_EQ(mPeer->mCalls.Take(), 4);
}

TEST_F(DiagnosticsTest, ACallIsNotLargerThanAPeerAccepts) {
  ASSERT_NO_FATAL_FAILURE(Start());
  while (mPeer->mCalls.Take(Clock::duration::zero())) {  // of other tests' values
  }
  CDiagnosticsSignal<std::string> first(&mFirst);
  for (int i = 0; i < 100; ++i) {
    first.Send(std::to_string(i) + std::string(10000, '.'));
  }
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(mPeer->Receive(1)[0].substr(0, 10), First(std::to_string(i) + "..........").substr(0, 10));
  }
  while (const auto values = mPeer->mCalls.Take(Clock::duration::zero())) {
    EXPECT_LE(*values, 3);
  }
}

TEST_F(DiagnosticsTest, TerminateIsBoundedForEveryTransport) {
  for (const bool obeys : {true, false}) {
    const auto peer = std::make_shared<Peer>();
    peer->mHangs = true;
    peer->mObeysCancel = obeys;
    CDiagnosticsSignal<std::string> first(&mFirst);
    first.Send("x");
    CDiagnosticsCommClient::Initialize(peer);
    ASSERT_TRUE(peer->mGate.AwaitWaiting(1));
    CDiagnosticsCommClient::Terminate();  // although only Cancel opens the gate
    first.Send("y");
    peer->mGate.Open();
    EXPECT_TRUE(Becomes([&] { return peer.use_count(); }, 1));
  }
}

TEST_F(DiagnosticsTest, BytesThatAreNotUtf8AreReplaced) {
  ASSERT_NO_FATAL_FAILURE(Start());
  CDiagnosticsSignal<std::string> first(&mFirst);
  const std::vector<std::pair<std::string, std::string>> cases{
      {"a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z", "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z"},
      {"\xFF\xC3", "??"},
      {"\xC0\xAF", "??"},            // over-long
      {"\xE0\x80\xAF", "???"},       // over-long
      {"\xED\xA0\x80", "???"},       // a surrogate
      {"\xF4\x90\x80\x80", "????"},  // beyond the last code point
      {"\xE2\x82", "??"},            // cut off
      {"\xE2(\xA1", "?(?"},
  };
  for (const auto& [sent, expected] : cases) {
    first.Send(sent);
    EXPECT_THAT(mPeer->Receive(1), ElementsAre(First(expected)));
  }
}

TEST_F(DiagnosticsTest, SeveralThreadsSendWhileTheClientStartsAndStops) {
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      CDiagnosticsSignal<std::string> first(&mFirst);
      while (!done) {
        first.Send("x");
      }
    });
  }
  int joined = 0;
  for (int i = 0; i < 5; ++i) {
    const auto peer = std::make_shared<Peer>();
    CDiagnosticsCommClient::Initialize(peer);
    EXPECT_NE(peer->mReceived.Take(), std::nullopt);
    CDiagnosticsCommClient::Terminate();
    joined += peer.use_count() == 1 ? 1 : 0;  // a thread that is not scheduled in time is left behind
    EXPECT_TRUE(Becomes([&] { return peer.use_count(); }, 1));
  }
  EXPECT_GT(joined, 0);
  done = true;
  for (auto& thread : threads) {
    thread.join();
  }
}

}  // namespace
