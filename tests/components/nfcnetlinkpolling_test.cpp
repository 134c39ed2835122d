#include "tests/components/nfcnetlinktest.h"

using namespace std::chrono_literals;
using namespace virtualnfc;
using Level = Log::ELogLevel;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

INSTANTIATE_TEST_SUITE_P(Kernel, NfcNetlinkPolling, ::testing::Bool(),
                         [](const auto& mode) { return mode.param ? "AnsweringAlready" : "AsMeasured"; });

TEST_P(NfcNetlinkPolling, StartingTwiceAndStoppingTwiceSucceed) {
  Start();
  EXPECT_EQ(ErrorOfStart(), "");
  for (const auto* line : {"Reader is already polling.", "Reader is already powered on.",
                           "Error handler got: Operation already in progress"}) {
    EXPECT_THAT(Lines(Level::Debug), Contains(Says(line)));
  }
  EXPECT_EQ(Tap(kCard), kCardReport);
  EXPECT_TRUE(WaitForPolling());
  EXPECT_EQ(ErrorOfStop(), "");
  EXPECT_THAT(Lines(Level::Info), Not(Contains(HasSubstr("Reader is not currently polling"))));
  EXPECT_EQ(ErrorOfStop(), "");
  EXPECT_THAT(Lines(Level::Info), Contains(Says("Reader is not currently polling. Continuing.")));
  EXPECT_THAT(Lines(Level::Debug), Contains(Says("Reader is already powered off.")));
  EXPECT_TRUE(IsOff());
}

TEST_F(NfcNetlink, EveryRefusalByTheKernelHasItsErrorAndItsCode) {
  struct Case {
    const char* rule;
    const char* start;
    const char* stop;
  };
  for (const auto& c : {
           Case{"DEV_UP errno=ETIMEDOUT", "Could not to power on reader for polling 110", ""},
           Case{"DEV_UP drop", "Could not to power on reader for polling 1 recoverable", ""},
           Case{"START_POLL errno=EBUSY", "Error in SendAndReceiveMsgs within StartPolling 16", ""},
           Case{"START_POLL errno=EINVAL", "Error in SendAndReceiveMsgs within StartPolling 22", ""},
           Case{"START_POLL truncate=20", "Error in SendAndReceiveMsgs within StartPolling 1 recoverable",
                ""},
           Case{"STOP_POLL errno=EBUSY", "", "Error in SendAndReceiveMsgs in StopPolling. 16"},
           Case{"STOP_POLL errno=ENODEV", "", "Error in SendAndReceiveMsgs in StopPolling. 19"},
           Case{"DEV_DOWN errno=EIO", "", "Failed to power off reader after polling. 5"},
       }) {
    SCOPED_TRACE(c.rule);
    Open();
    mKernel->AddRule(c.rule);
    EXPECT_EQ(ErrorOfStart(), c.start);
    EXPECT_EQ(ErrorOfStop(), c.stop);
    mKernel->ClearRules();
    mController->DeinitializeController();
    mKernel->WaitFor([](const Status& status) { return !status.Device().polling; });
  }
}

TEST_F(NfcNetlink, BusyIsASuccessOnlyWhileThePollingIsItsOwn) {
  mInCallback = [this] { mKernel->RemoveTags(); };  // before polling is restarted: each tag is found once
  Start();
  EXPECT_EQ(Tap(kCard), kCardReport);
  EXPECT_TRUE(WaitForPolling());
  mKernel->AddRule("START_POLL errno=EBUSY");
  EXPECT_EQ(ErrorOfStart(), "");
  mKernel->PresentTag(kCard);  // a find ends the polling
  EXPECT_THAT(WaitFor(3), Contains("error 16: Error in SendAndReceiveMsgs within StartPolling"));
  EXPECT_THAT(Lines(Level::Warning), IsEmpty()) << "reported at once, not by a later check";
  mKernel->ClearRules();
  EXPECT_EQ(ErrorOfStop(), "");
}

TEST_F(NfcNetlink, ReadsEveryTechnology) {
  mInCallback = [this] { mKernel->RemoveTags(); };  // before polling is restarted: each tag is found once
  Start();
  EXPECT_EQ(Tap(MakeTag(TagKind::Mifare, "04A12B5C")), "MIFARE 04A12B5C");
  EXPECT_EQ(Tap(MakeTag(TagKind::Mifare, "04A12B5C112233")), "MIFARE 04A12B5C112233");
  EXPECT_EQ(Tap(MakeTag(TagKind::Iso14443A, "0102030405060708090A")), "ISO14443-A 0102030405060708090A");
  EXPECT_EQ(Tap(MakeTag(TagKind::NfcDep, "01020304")), "ISO-DEP 01020304");
  EXPECT_EQ(Tap(MakeTag(TagKind::Iso15693, "E007060504030201")), "ISO15693 E007060504030201");
  EXPECT_EQ(Tap(MakeTag(TagKind::Felica, "0102030405060708")), "FELICA ");
  EXPECT_EQ(Tap(MakeTag(TagKind::Iso14443B, "01020304")), "ISO14443-B ");
  EXPECT_THAT(Lines(Level::Warning),
              ElementsAre(Says("Tag found with protocol 8, but no UID found. Continuing polling."),
                          Says("Tag found with protocol 64, but no UID found. Continuing polling.")));
}

TEST_F(NfcNetlink, ReportsATagOfSeveralProtocolsAndOneOfNone) {
  mInCallback = [this] { mKernel->RemoveTags(); };
  Start();
  EXPECT_EQ(Tap(Tag{"raw",
                    Radio::A,
                    0x14,
                    {{NFC_ATTR_PROTOCOLS, {0x14, 0, 0, 0}}, {NFC_ATTR_TARGET_NFCID1, {1, 2, 3, 4}}}}),
            "Unsupported protocol 01020304");
  EXPECT_THAT(Lines(Level::Warning), ElementsAre(Says("Unsupported tag protocol: 20")));
  EXPECT_EQ(Tap(Tag{"raw", Radio::A, 0x04, {{NFC_ATTR_TARGET_NFCID1, {1, 2, 3, 4}}}}),
            "Unsupported protocol ");
}

TEST_F(NfcNetlinkOnNci, TheLastOfSeveralTagsIsReported) {
  Start();
  mKernel->PresentTags({kCard, MakeTag(TagKind::Mifare, "11223344")});
  EXPECT_EQ(WaitFor(1).front(), "MIFARE 11223344");
}

TEST_F(NfcNetlink, EventsOfOtherReadersChangeNothing) {
  Start();
  const auto event = [](uint8_t command, uint32_t device) {
    return MessageBuilder(20, 0, 0, 0).Genl(command, 1).U32(NFC_ATTR_DEVICE_INDEX, device).Finish();
  };
  const auto handled = [this] {
    const auto lines = Lines(Level::Debug);
    return std::count_if(lines.begin(), lines.end(),
                         [](const auto& line) { return line.ends_with(") Processing netlink event..."); });
  };
  const auto before = mKernel->GetStatus().Commands();
  mKernel->SendRawEvent(event(NFC_EVENT_TARGET_LOST, 0));
  mKernel->SendRawEvent(event(NFC_EVENT_DEVICE_ADDED, 1));
  mKernel->SendRawEvent(event(NFC_EVENT_DEVICE_REMOVED, 1));
  mKernel->SendRawEvent(event(200, 0));
  EXPECT_TRUE(handover::Eventually([&] { return handled() >= 4; }));
  mKernel->Plug();  // whose tag another process finds
  mKernel->SendRawEvent(event(NFC_EVENT_TARGETS_FOUND, 1));
  EXPECT_EQ(WaitFor(1).size(), 1U);
  EXPECT_EQ(ErrorOfStart(), "");  // our reader still polls
  EXPECT_EQ(mKernel->GetStatus().Commands(NFC_CMD_STOP_POLL), 0U);
  // The monitor starts polling again after it has reported the tag, at the same time as this thread.
  EXPECT_TRUE(handover::Eventually([&] { return mKernel->GetStatus().Commands() - before >= 5; }))
      << "GET_TARGET, and twice DEV_UP and START_POLL";
  EXPECT_EQ(Tap(kCard), kCardReport);
  EXPECT_TRUE(WaitForPolling());
}
