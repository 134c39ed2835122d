#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tests/components/nfcnetlinktest.h"

using namespace std::chrono_literals;
using namespace virtualnfc;
using Level = Log::ELogLevel;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

/// A request, without the numbers that differ from run to run.
std::string Described(ByteView datagram) {
  nlmsghdr header{};
  std::memcpy(&header, datagram.data(), sizeof(header));
  return fmt::format("type {} flags {:#x}: {:02x}", header.nlmsg_type, header.nlmsg_flags,
                     fmt::join(datagram.subspan(sizeof(header)), " "));
}

class NfcNetlinkWithoutListeners : public NfcNetlink {
 protected:
  NfcNetlinkWithoutListeners() : NfcNetlink({.kernel = {.admitsListeners = false}}) {}
};

class NfcNetlinkWithoutGroup : public NfcNetlink {
 protected:
  NfcNetlinkWithoutGroup() : NfcNetlink({.kernel = {.groupName = "else"}}) {}
};

}  // namespace

TEST_F(NfcNetlink, LogsEveryStepOfItsLifeCycle) {
  Start();
  mController->StopPolling();
  mController->DeinitializeController();
  mController->DeinitializeController();
  EXPECT_EQ(CountInterposedSockets(), 0);
  EXPECT_THAT(Lines(Level::Error), IsEmpty());
  for (const auto* line :
       {"Found NFC Device nfc0", "Setting nfc0 power mode to: on", "Polling started.",
        "Setting nfc0 power mode to: off", "Polling stopped.", "NFC controller deinitialized"}) {
    EXPECT_THAT(Lines(Level::Info), Contains(Says(line)));
  }
  for (const auto* line :
       {"NFC Netlink MCast ID: 3", "NFC GENL initialization complete, starting event monitor.",
        "Notifying that the event socket is ready", "Done waiting for event socket", "Starting Polling.",
        "Stopping polling.", "NFC event monitor stopped.", "Event monitor stopped."}) {
    EXPECT_THAT(Lines(Level::Debug), Contains(Says(line)));
  }
  for (const auto* line :
       {"CNfcNetlink::InitializeController", "CNfcNetlink::SendAndReceiveMsg",
        "CNfcNetlink::ResolveMulticastId", "CNfcNetlink::GetNfcDevice", "CNfcNetlink::MonitorEvents",
        "CNfcNetlink::StopMonitoringEvents", "Freeing NFC command socket", "Clearing nfc0 device info"}) {
    EXPECT_THAT(Lines(Level::Trace), Contains(Says(line)));
  }
  EXPECT_THAT(Lines(Level::Info).front(), ::testing::StartsWith("(src/components/nfcnetlink."));
}

TEST_F(NfcNetlink, SendsTheRequestsThatTheKernelExpects) {
  std::vector<std::string> sent;
  mKernel.reset();
  mKernel = std::make_unique<InProcessVirtualNfc>(
      VirtualNfcSettings{.watch = [&](Traffic traffic, ByteView datagram) {
        if (traffic == Traffic::Request) {
          sent.push_back(Described(datagram));
        }
      }});
  Start();
  Tap(kCard);
  WaitForPolling();
  mController->StopPolling();
  mController->DeinitializeController();
  mKernel.reset();
  // The kernel's header: command, version, two bytes of padding. Attributes: length, type, value.
  const std::string index = " 08 00 01 00 00 00 00 00";
  const std::string findNfc = "type 16 flags 0x5: 03 01 00 00 08 00 02 00 6e 66 63 00";
  const std::string findController = "type 16 flags 0x5: 03 01 00 00 0b 00 02 00 6e 6c 63 74 72 6c 00 00";
  const std::string groups = "type 16 flags 0x5: 03 00 00 00 08 00 02 00 6e 66 63 00";
  const std::string powerOn = "type 20 flags 0x5: 02 01 00 00" + index;
  const std::string start =
      "type 20 flags 0x5: 06 01 00 00" + index + " 08 00 0d 00 fc 00 00 00 08 00 03 00 fc 00 00 00";
  EXPECT_THAT(sent, ElementsAre(findNfc, findController, groups, "type 20 flags 0x305: 01 01 00 00", powerOn,
                                start, "type 20 flags 0x305: 08 01 00 00" + index, powerOn, start,
                                "type 20 flags 0x5: 07 01 00 00" + index,
                                "type 20 flags 0x5: 03 01 00 00" + index, "type 20 flags 0x5: 00 01 00 00"));
}

TEST_F(NfcNetlink, SaysWhatCannotBeOpenedAndLeavesNothingBehind) {
  struct Case {
    const char* rule;
    const char* error;
    std::vector<::testing::Matcher<std::string>> logged;
  };
  const auto noAnswer = Says("Error receiving netlink message. Return code: Try again.");
  const auto refused = Says("Error handler got: Operation not permitted");
  const auto noGroup = Says("Error in SendAndReceiveMessages within ResolveMulticastId.");
  const auto noDevice = Says("Error: Failed to send and receive NFC_CMD_GET_DEVICE.");
  for (const auto& c : std::vector<Case>{
           {"GETFAMILY nth=1 errno=ENOENT", "Could not resolve nfc netlink family. 12", {}},
           {"GETFAMILY nth=3 errno=EPERM",
            "Could not resolve nfc multicast id. 1 recoverable",
            {refused, noGroup}},
           {"GETFAMILY nth=3 drop", "Could not resolve nfc multicast id. 1 recoverable", {noAnswer, noGroup}},
           {"GET_DEVICE errno=EPERM", "Could find trf7970a reader. 1 recoverable", {refused, noDevice}},
           {"GET_DEVICE drop", "Could find trf7970a reader. 1 recoverable", {noAnswer, noDevice}},
       }) {
    SCOPED_TRACE(c.rule);
    mKernel->ClearRules();
    mKernel->AddRule(c.rule);
    mLog.Clear();
    EXPECT_EQ(ErrorOfOpen(), c.error);
    EXPECT_THAT(Lines(Level::Error), ::testing::ElementsAreArray(c.logged));
    EXPECT_EQ(CountInterposedSockets(), 0);
    EXPECT_NE(ErrorOfStart(), "");
    EXPECT_NE(ErrorOfStop(), "");
    mController->DeinitializeController();
  }
  mKernel->ClearRules();
  EXPECT_EQ(ErrorOfOpen(), "");
}

TEST_F(NfcNetlink, AMachineWithoutNetlinkIsRefused) {
  mKernel.reset();
  EXPECT_EQ(ErrorOfOpen(), "Could not connect to generic netlink. 26");
}

TEST_F(NfcNetlink, UnrelatedMessagesDoNotExtendTheTimeout) {
  Make(1h, 0ms);  // no timeout for the socket itself
  EXPECT_EQ(ErrorOfOpen(), "") << "an answer that is there is always taken";
  mController->DeinitializeController();
  mKernel->AddRule("GETFAMILY nth=3 seq=4711");
  EXPECT_EQ(ErrorOfOpen(), "Could not resolve nfc multicast id. 1 recoverable");
}

TEST_F(NfcNetlink, TakesOnlyTheReaderThatIsTheKernelsDeviceZero) {
  mKernel->Plug();
  EXPECT_EQ(ErrorOfOpen(), "Could find trf7970a reader. 31 recoverable");
  EXPECT_THAT(Lines(Level::Error), ElementsAre(Says("Error: Unexpected device at index: 1")));
  mKernel->Unplug(0);
  mKernel->Unplug(1);
  mLog.Clear();
  EXPECT_EQ(ErrorOfOpen(), "Could find trf7970a reader. 31 recoverable");
  EXPECT_THAT(Lines(Level::Error), ElementsAre(HasSubstr("no NFC device")));
}

TEST_F(NfcNetlinkWithoutGroup, IsRefusedByAKernelWithoutEvents) {
  EXPECT_EQ(ErrorOfOpen(), "Could not resolve nfc multicast id. 12");
  for (const uint32_t id : {0U, 0x80000000U, 0xFFFFFFFFU}) {  // no group has such a number
    mKernel.reset();
    mKernel = std::make_unique<InProcessVirtualNfc>(VirtualNfcSettings{.kernel = {.groupId = id}});
    EXPECT_EQ(ErrorOfOpen(), "Could not resolve nfc multicast id. 12") << id;
  }
}

TEST_F(NfcNetlinkWithoutListeners, AMonitorThatMayNotListenFailsTheStart) {
  Open();
  EXPECT_EQ(ErrorOfStart(), kNotOpen);
  EXPECT_THAT(Lines(Level::Error),
              ElementsAre(HasSubstr(") Error: Could not add membership to mcast nfc events: ")));
  mController->DeinitializeController();
  EXPECT_EQ(CountInterposedSockets(), 0);
}

TEST_F(NfcNetlink, AMonitorWhoseDescriptorIsTooHighFailsTheStart) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit before = limit;
  limit.rlim_cur = limit.rlim_max;
  if (limit.rlim_max < FD_SETSIZE + 50) {
    GTEST_SKIP() << "this process may not open that many descriptors";
  }
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<UniqueFd> taken(FD_SETSIZE);
  std::generate(taken.begin(), taken.end(), [] { return UniqueFd(dup(STDERR_FILENO)); });
  Open();
  EXPECT_EQ(ErrorOfStart(), kNotOpen);
  EXPECT_THAT(Lines(Level::Error),
              ElementsAre(HasSubstr(") Error: Too many open descriptors to wait for events: ")));
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST_F(NfcNetlink, OperationsOnAClosedControllerFailInsteadOfWaiting) {
  for (const bool wasOpen : {false, true}) {
    SCOPED_TRACE(wasOpen);
    if (wasOpen) {
      Start();
      mController->StopPolling();
      mController->DeinitializeController();
    }
    EXPECT_EQ(ErrorOfStart(), kNotOpen);
    EXPECT_EQ(ErrorOfStop(), kNoDevice);
  }
}

TEST_F(NfcNetlink, OpeningAnOpenControllerReopensIt) {
  Start();
  Open();
  EXPECT_TRUE(WaitForCommand(NFC_CMD_STOP_POLL));
  mController->StartPolling();
  EXPECT_EQ(CountInterposedSockets(), 2);
  EXPECT_EQ(Tap(kCard), kCardReport);
  mKernel->AddRule("STOP_POLL nth=1 errno=EIO");  // ending the old poll is best effort
  EXPECT_EQ(ErrorOfOpen(), "");
}
