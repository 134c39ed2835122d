// The reader never goes deaf unnoticed: every end of reading is cured or reported.
#include <cstring>
#include <utility>

#include "tests/components/nfcnetlinktest.h"

using namespace std::chrono_literals;
using namespace virtualnfc;
using Level = Log::ELogLevel;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

struct NoStdException {};

/// An event that is too short to name its device.
Bytes CutOffEvent() {
  return MessageBuilder(20, 0, 0, 0).Finish();
}

}  // namespace

TEST_F(NfcNetlink, LostEventsAreReported) {
  Start();
  mKernel->OverrunEvents();
  EXPECT_THAT(WaitFor(1), ElementsAre("error 5: The event monitor ended"));
  EXPECT_THAT(Lines(Level::Error), Contains(Says("nl_recvmsgs got an error: Out of memory.")));
  EXPECT_EQ(ErrorOfStart(), kNotOpen);
  EXPECT_EQ(ErrorOfStop(), "");
  EXPECT_EQ(ErrorOfClose(), "");
}

TEST_F(NfcNetlink, AnEventThatPromisesAContinuationDoesNotHoldTheMonitor) {
  Start();
  nlmsghdr header{};
  header.nlmsg_len = NLMSG_HDRLEN + GENL_HDRLEN;
  header.nlmsg_type = 20;
  header.nlmsg_flags = NLM_F_MULTI;
  Bytes bytes(header.nlmsg_len);
  std::memcpy(bytes.data(), &header, sizeof(header));
  mKernel->SendRawEvent(bytes);
  EXPECT_EQ(Tap(kCard), kCardReport);
}

TEST_F(NfcNetlink, ATargetCallbackThatThrowsDoesNotEndTheReading) {
  bool isStd = true;
  mInCallback = [&] {
    mKernel->RemoveTags();
    if (std::exchange(isStd, false)) {
      throw std::runtime_error("callback");
    }
    throw NoStdException();
  };
  Start();
  for (uint32_t polls = 2; polls < 4; ++polls) {
    mKernel->PresentTag(kCard);
    EXPECT_TRUE(WaitForCommand(NFC_CMD_START_POLL, polls));
  }
  EXPECT_THAT(Lines(Level::Error), ElementsAre(Says("The target callback failed: callback"),
                                               Says("The target callback failed: unknown exception")));
}

TEST_F(NfcNetlink, AnErrorCallbackThatThrowsIsLogged) {
  mController->SetErrorCallback([](const CRfidError&) { throw NoStdException(); });
  mController->InitializeController([](const CToken&) {});
  mController->StartPolling();
  mKernel->OverrunEvents();
  EXPECT_TRUE(WaitForLine(Level::Error, ") The error callback failed: unknown exception"));
}

TEST_F(NfcNetlink, PollingThatFindsNothingIsRenewedQuietly) {
  Make(20ms);
  Start();
  mLog.Clear();
  EXPECT_TRUE(WaitForCommand(NFC_CMD_STOP_POLL, 3));
  EXPECT_THAT(Lines(Level::Info), IsEmpty());
  EXPECT_THAT(Lines(Level::Debug), Contains(Says("Polling renewed.")));
  EXPECT_EQ(Tap(kCard), kCardReport);
  mController->StopPolling();
  const auto after = mKernel->GetStatus().Commands(NFC_CMD_STOP_POLL);
  mController->DeinitializeController();
  EXPECT_EQ(mKernel->GetStatus().Commands(NFC_CMD_STOP_POLL), after) << "polling is no longer watched";
}

TEST_F(NfcNetlink, ACardIsReadAgainAfterPollingEndedWithoutAnEvent) {
  constexpr auto kEnded = "Polling had ended unnoticed. Started it again.";
  constexpr auto kDisagree = "Kernel and reader disagree about polling. Switching the reader off and on.";
  constexpr auto kClaimed =
      "The kernel says that the reader polls already, but nobody started it. Checking it soon.";
  struct Case {
    const char* name;
    std::function<void()> happen;
    const char* warning;  ///< null: none
  };
  mInCallback = [this] { mKernel->RemoveTags(); };
  for (const auto& c : std::vector<Case>{
           {"a find is lost",
            [this] {
              mKernel->AddRule("TARGETS_FOUND nth=1 drop");
              mKernel->PresentTagFor(kCard, 30ms);
            },
            kEnded},
           {"a transfer to the reader fails", [this] { mKernel->SetFault(Fault::PollDead); }, nullptr},
           {"the first transfer after a card fails",
            [this] {
              mKernel->AddRule("START_POLL nth=1 fault=poll-dead");
              Tap(kCard);
            },
            nullptr},
           {"reader and kernel disagree", [this] { mKernel->SetFault(Fault::OutOfStep); }, kDisagree},
           {"the chip polls and the kernel does not", [this] { mKernel->SetFault(Fault::ChipPolls); },
            kDisagree},
           {"the restart finds polling already on",
            [this] {
              mKernel->AddRule("START_POLL nth=1 errno=EALREADY");
              Tap(kCard);
            },
            kClaimed},
           {"an event is cut off", [this] { mKernel->SendRawEvent(CutOffEvent()); }, nullptr},
       }) {
    SCOPED_TRACE(c.name);
    Make(100ms);
    Start();
    mLog.Clear();
    c.happen();
    const auto stops = mKernel->GetStatus().Commands(NFC_CMD_STOP_POLL);
    EXPECT_TRUE(WaitForCommand(NFC_CMD_STOP_POLL, stops + 1));
    mKernel->ClearRules();
    ForgetReports();
    EXPECT_EQ(Tap(kCard), kCardReport);
    const auto warnings = Lines(Level::Warning);
    if (c.warning == nullptr) {
      EXPECT_THAT(warnings, IsEmpty());
    } else {
      EXPECT_THAT(warnings, Contains(Says(c.warning)));
    }
    EXPECT_EQ(ErrorOfStop(), "");
    mController->DeinitializeController();
  }
}

TEST_F(NfcNetlinkOnNci, AStopThatCrossesAFindIsEndedAndTheKernelGetsItsTime) {
  struct Case {
    const char* name;
    std::function<void()> stop;
  };
  for (const auto& c : std::vector<Case>{
           {"disabling", [this] { mController->StopPolling(); }},
           {"closing", [this] { mController->DeinitializeController(); }},
           {"opening anew",
            [this] {
              Open();
              mController->StopPolling();
            }},
           {"renewing",
            [this] {
              const auto starts = mKernel->GetStatus().Commands(NFC_CMD_START_POLL);
              mKernel->SendRawEvent(CutOffEvent());
              EXPECT_TRUE(WaitForCommand(NFC_CMD_START_POLL, starts + 1));
            }},
       }) {
    SCOPED_TRACE(c.name);
    mLog.Clear();
    Start();
    mKernel->AddRule("STOP_POLL cross times=1");
    c.stop();
    EXPECT_THAT(Lines(Level::Warning), Contains(HasSubstr(") Stopping the polling took ")));
    mKernel->ClearRules();
    ASSERT_FALSE(mKernel->GetStatus().hung);
    EXPECT_EQ(ErrorOfOpen(), "");
    mController->StartPolling();
    EXPECT_EQ(Tap(kCard), kCardReport);
    mController->StopPolling();
    mController->DeinitializeController();
    ForgetReports();
  }
}

TEST_F(NfcNetlinkOnNci, NoCommandButTheStopIsInterrupted) {
  // Here START_POLL takes longer than the limit for STOP_POLL, and follows a STOP_POLL on the same thread.
  Start();
  mController->StopPolling();
  mKernel->AddRule("START_POLL delay=2500");
  mController->StartPolling();
  EXPECT_EQ(mKernel->GetStatus().interrupted, 0U);
  EXPECT_EQ(Tap(kCard), kCardReport);
}

TEST_F(NfcNetlink, AStopWithoutAnAnswerEndsAfterTheAnswersTimeout) {
  Make(1h, 2500ms);  // longer than a STOP_POLL may take
  Start();
  mKernel->AddRule("STOP_POLL nth=1 drop");
  EXPECT_EQ(ErrorOfStop(), "Error in SendAndReceiveMsgs in StopPolling. 1 recoverable");
}

TEST_F(NfcNetlink, APollThatTheKernelOnlyClaimsIsRenewedSoon) {
  mKernel->AddRule("START_POLL nth=1 errno=EALREADY");
  Start();  // with a watch period of an hour
  EXPECT_TRUE(WaitForPolling());
  EXPECT_EQ(Tap(kCard), kCardReport);
}

TEST_F(NfcNetlink, AFaultThatRenewingCannotCureIsReportedOnce) {
  struct Case {
    const char* rule;
    const char* reported;
  };
  for (const auto& c : {
           Case{"STOP_POLL nth=1 errno=EBUSY", "error 16: Error in SendAndReceiveMsgs in StopPolling."},
           Case{"STOP_POLL nth=1 drop", "error 1: Error in SendAndReceiveMsgs in StopPolling."},
           Case{"START_POLL nth=1 errno=ENODEV", "error 19: Error in SendAndReceiveMsgs within StartPolling"},
           Case{"START_POLL errno=EPROTO", "error 71: Error in SendAndReceiveMsgs within StartPolling"},
           Case{"START_POLL errno=EALREADY", "error 114: Error in SendAndReceiveMsgs within StartPolling"},
       }) {
    SCOPED_TRACE(c.rule);
    Make(20ms);
    Start();
    mKernel->AddRule(c.rule);
    EXPECT_THAT(WaitFor(1), ElementsAre(c.reported));
    ForgetReports();
    const auto commands = mKernel->GetStatus().Commands();
    mKernel->ClearRules();
    EXPECT_EQ(ErrorOfStop(), "");
    EXPECT_EQ(mKernel->GetStatus().Commands(), commands + 2) << "what is reported is not tried again";
    mController->DeinitializeController();
  }
}

TEST_F(NfcNetlink, AReaderThatIsUnpluggedIsReportedAtOnce) {
  Start();  // with a watch period of an hour
  mKernel->Unplug();
  EXPECT_THAT(WaitFor(1), ElementsAre("error 19: Error in SendAndReceiveMsgs in StopPolling."));
}
