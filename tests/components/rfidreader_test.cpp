#include "src/components/rfidreader.h"

#include <gmock/gmock.h>

#include <future>
#include <thread>

#include "tests/components/fakenfcnetlink.h"
#include "tests/components/says.h"
#include "tests/framework/logcapture.h"

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr auto kBadLength = "UID must be between 4 and 8 bytes.";
constexpr auto kNoHex = "UID must be a valid HEX number.";

class RfidReader : public ::testing::Test {
 protected:
  RfidReader() {
    mReader.Initialize([this](const CToken& token, bool valid) {
      mSeen.push_back(token.uid + (valid ? " valid" : " not valid"));
      mProtocol = token.protocol;
    });
    mLog.Clear();
  }
  void See(const std::string& uid, std::chrono::nanoseconds at) {
    mReader.ValidateTokenAndNotify({uid, "MIFARE"}, mStart + at);
  }

  LogCapture mLog;
  std::shared_ptr<FakeNfcNetlink> mController = std::make_shared<FakeNfcNetlink>();
  CRfidReader mReader{mController};
  std::chrono::steady_clock::time_point mStart = std::chrono::steady_clock::now();
  std::vector<std::string> mSeen;
  std::string mProtocol;
};

}  // namespace

TEST_F(RfidReader, ValidatesLengthAndDigitsEachWithItsOwnWarning) {
  struct Case {
    const char* uid;
    bool valid;
    std::vector<::testing::Matcher<std::string>> warnings;
  };
  for (const auto& c : std::vector<Case>{{"0A1B2C3D", true, {}},
                                         {"0a1b2c3d", true, {}},
                                         {"0A1B2C3D4", true, {}},
                                         {"0A1B2C3D4E5F6A7B", true, {}},
                                         {"0A1B2C3", false, {Says(kBadLength)}},
                                         {"0A1B2C3D4E5F6A7B8", false, {Says(kBadLength)}},
                                         {"", false, {Says(kBadLength)}},
                                         {"0A1B2C3G", false, {Says(kNoHex)}},
                                         {"XYZ", false, {Says(kBadLength), Says(kNoHex)}}}) {
    SCOPED_TRACE(c.uid);
    mLog.Clear();
    mSeen.clear();
    See(c.uid, 0s);
    EXPECT_THAT(mSeen, ElementsAre(std::string(c.uid) + (c.valid ? " valid" : " not valid")));
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Warning), ::testing::ElementsAreArray(c.warnings));
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Info),
                ElementsAre(Says(std::string("Token validation result ") + c.uid + ": " +
                                 (c.valid ? "Valid" : "Not valid"))));
  }
  EXPECT_EQ(mProtocol, "MIFARE");
}

TEST_F(RfidReader, ACardIsReportedAgainAfterMoreThanTwoSecondsAway) {
  for (int i = 0; i < 40; ++i) {
    See("0A1B2C3D", i * 1500ms);
  }
  EXPECT_EQ(mSeen.size(), 1U);
  const auto last = 39 * 1500ms;
  See("0A1B2C3D", last + 2s);  // exactly two seconds: still the same visit
  EXPECT_EQ(mSeen.size(), 1U);
  See("0A1B2C3D", last + 4s + 1ns);
  EXPECT_EQ(mSeen.size(), 2U);
}

TEST_F(RfidReader, EachUidIsSuppressedByItselfByteForByte) {
  for (const auto* uid : {"ABCD1234", "abcd1234", "ABCD12345", "XYZ", "", "ABCD1234", "XYZ", ""}) {
    See(uid, 0s);
  }
  EXPECT_THAT(mSeen, ElementsAre("ABCD1234 valid", "abcd1234 valid", "ABCD12345 valid", "XYZ not valid",
                                 " not valid"));
}

TEST_F(RfidReader, ACardWhoseReportFailedIsReportedAgain) {
  mReader.Initialize([](const CToken&, bool) { throw std::runtime_error("not taken"); });
  EXPECT_THROW(See("0A1B2C3D", 0s), std::runtime_error);
  EXPECT_THROW(See("0A1B2C3D", 1s), std::runtime_error);
}

TEST_F(RfidReader, StoppingForgetsTheCardsEvenWhenTheControllerFails) {
  See("0A1B2C3D", 0s);
  mController->mFail["StopPolling"] = 19;
  EXPECT_THROW(mReader.StopPolling(), CRfidError);
  See("0A1B2C3D", 1s);
  EXPECT_EQ(mSeen.size(), 2U);
}

TEST_F(RfidReader, AFindThatMeetsTheStopIsReportedWhenPollingRestarts) {
  mReader.StopPolling();
  See("0A1B2C3D", 0s);
  mReader.StartPolling();
  See("0A1B2C3D", 1s);
  EXPECT_EQ(mSeen.size(), 2U);
}

TEST_F(RfidReader, PassesTheLifeCycleOnAndControllerErrorsThrough) {
  mReader.StartPolling();
  mReader.StopPolling();
  mReader.Deinitialize();
  EXPECT_THAT(mController->mCalls,
              ElementsAre("InitializeController", "StartPolling", "StopPolling", "DeinitializeController"));
  EXPECT_THAT(
      mLog.Texts(Log::ELogLevel::Debug),
      ElementsAre(Says("Starting polling."), Says("Stopping polling."), Says("Deinitializing RFID reader.")));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Trace),
              ElementsAre(Says("CRfidReader::StartPolling"), Says("CRfidReader::StopPolling"),
                          Says("CRfidReader::Deinitialize")));
  for (const auto* operation :
       {"InitializeController", "StartPolling", "StopPolling", "DeinitializeController"}) {
    mController->mFail[operation] = 25;
  }
  EXPECT_THROW(mReader.Initialize({}), CRfidError);
  EXPECT_THROW(mReader.StartPolling(), CRfidError);
  EXPECT_THROW(mReader.StopPolling(), CRfidError);
  EXPECT_THROW(mReader.Deinitialize(), CRfidError);
}

TEST_F(RfidReader, ATagWithoutACallbackIsDropped) {
  CRfidReader lonely(mController);
  lonely.ValidateTokenAndNotify({"0A1B2C3D", "MIFARE"});
  EXPECT_THAT(mSeen, IsEmpty());
}

TEST_F(RfidReader, StoppingDoesNotWaitForASighting) {
  std::promise<void> inCallback;
  std::promise<void> mayGoOn;
  mReader.Initialize([&](const CToken&, bool) {
    inCallback.set_value();
    mayGoOn.get_future().wait();
  });
  std::thread monitor([this] { mController->Report({"0A1B2C3D", "MIFARE"}); });
  inCallback.get_future().wait();
  mReader.StopPolling();  // would hang if it waited
  mayGoOn.set_value();
  monitor.join();
  mReader.Initialize([this](const CToken& token, bool) { mSeen.push_back(token.uid); });
  mController->Report({"0A1B2C3D", "MIFARE"});
  EXPECT_THAT(mSeen, ElementsAre("0A1B2C3D"));  // the stop forgot the first sighting, too
}
