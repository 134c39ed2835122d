#include "src/components/nfcnetlink.h"

#include <dirent.h>
#include <gmock/gmock.h>
#include <linux/nfc.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>

#include "framework/handover.h"
#include "framework/logcapture.h"
#include "tools/virtual-nfc/preload/inprocess.h"

using namespace std::chrono_literals;
using namespace virtualnfc;
using handover::Gate;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

/// Those of this process, once the simulated kernel, which lives in it too, has noticed the closes.
size_t OpenDescriptors(const VirtualNfc& kernel) {
  kernel.WaitFor([](const Status& status) { return status.openSockets == 0; });
  size_t count = 0;
  DIR* folder = opendir("/proc/self/fd");
  while (readdir(folder) != nullptr) {
    ++count;
  }
  closedir(folder);
  return count;
}

/// A controller on a simulated kernel, and what it reported.
class NfcNetlink : public ::testing::Test {
 protected:
  explicit NfcNetlink(VirtualNfcSettings settings = {})
      : mKernel(std::make_unique<InProcessVirtualNfc>(std::move(settings))) {}

  void Open() {
    mController->SetErrorCallback([this](const CRfidError& error) {
      Add(fmt::format("error {}: {}", error.GetErrorCode(), error.what()));
    });
    mController->InitializeController([this](const CToken& token) {
      if (mInCallback) {
        mInCallback();
      }
      Add(token.protocol + " " + token.uid);
    });
  }
  /// Polling is not looked after, or at short intervals.
  void Make(std::chrono::milliseconds watchPeriod, std::chrono::milliseconds answerTimeout = 300ms) {
    mController = std::make_unique<CNfcNetlink>(
        CNfcNetlink::Settings{.answerTimeout = answerTimeout, .watchPeriod = watchPeriod});
  }
  void Start() {
    Open();
    mController->StartPolling();
  }
  void Add(const std::string& what) {
    const std::lock_guard lock(mMutex);
    mReported.push_back(what);
    mArrived.notify_all();
  }
  std::vector<std::string> WaitFor(size_t count) {
    std::unique_lock lock(mMutex);
    mArrived.wait_for(lock, handover::kPatience, [&] { return mReported.size() >= count; });
    return mReported;
  }
  bool WaitForPolling() {
    return mKernel->WaitFor([](const Status& status) { return status.Device().polling; });
  }
  bool WaitForCommand(uint8_t command, uint32_t count = 1) {
    return mKernel->WaitFor([=](const Status& status) { return status.Commands(command) >= count; });
  }
  /// A tag that is taken away as soon as it was reported.
  std::string Tap(const Tag& tag) {
    const auto before = WaitFor(0).size();
    mKernel->PresentTag(tag);
    const auto reported = WaitFor(before + 1);
    mKernel->RemoveTags();
    return reported.size() > before ? reported[before] : "nothing reported";
  }
  /// The operation's failure as text, "" when it succeeds.
  template <typename Operation>
  std::string ErrorOf(Operation operation) {
    try {
      operation();
    } catch (const CRfidError& e) {
      return fmt::format("{} {}{}", e.what(), e.GetErrorCode(), e.IsRecoverable() ? " recoverable" : "");
    }
    return "";
  }
  std::string ErrorOfOpen() {
    return ErrorOf([this] { Open(); });
  }
  std::string ErrorOfStart() {
    return ErrorOf([this] { mController->StartPolling(); });
  }
  std::string ErrorOfStop() {
    return ErrorOf([this] { mController->StopPolling(); });
  }

  LogCapture mLog;
  std::unique_ptr<InProcessVirtualNfc> mKernel;
  std::function<void()> mInCallback;
  std::mutex mMutex;
  std::condition_variable mArrived;
  std::vector<std::string> mReported;
  std::unique_ptr<CNfcNetlink> mController =
      std::make_unique<CNfcNetlink>(CNfcNetlink::Settings{.answerTimeout = 300ms, .watchPeriod = 1h});
};

const Tag Card = MakeTag(TagKind::Mifare, "04A12B5C");

}  // namespace

// Opening and closing

TEST_F(NfcNetlink, LivesThroughItsLifeCycleAndLeavesNothingOpen) {
  const auto descriptors = OpenDescriptors(*mKernel);
  for (int round = 0; round < 2; ++round) {
    Start();
    EXPECT_TRUE(mKernel->GetStatus().Device().polling);
    EXPECT_EQ(mKernel->GetStatus().Device().mask, 0xFCU);
    mController->StopPolling();
    EXPECT_FALSE(mKernel->GetStatus().Device().powered);
    mController->DeinitializeController();
    mController->DeinitializeController();
    EXPECT_EQ(CountInterposedSockets(), 0);
    EXPECT_LE(OpenDescriptors(*mKernel), descriptors);
  }
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error), IsEmpty());
  for (const auto* line :
       {") Found NFC Device nfc0", ") Setting nfc0 power mode to: on", ") Polling started.",
        ") Setting nfc0 power mode to: off", ") Polling stopped.", ") NFC controller deinitialized"}) {
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Info), Contains(EndsWith(line)));
  }
  for (const auto* line :
       {") NFC Netlink MCast ID: 3", ") NFC GENL initialization complete, starting event monitor.",
        ") Notifying that the event socket is ready", ") Done waiting for event socket",
        ") Starting Polling.", ") Stopping polling.", ") NFC event monitor stopped.",
        ") Event monitor stopped."}) {
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Debug), Contains(EndsWith(line)));
  }
  for (const auto* line : {") CNfcNetlink::InitializeController", ") CNfcNetlink::SendAndReceiveMsg",
                           ") CNfcNetlink::ResolveMulticastId", ") CNfcNetlink::GetNfcDevice",
                           ") CNfcNetlink::MonitorEvents", ") CNfcNetlink::StopMonitoringEvents",
                           ") Freeing NFC command socket", ") Clearing nfc0 device info"}) {
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Trace), Contains(EndsWith(line)));
  }
  EXPECT_EQ(mLog.Texts(Log::ELogLevel::Info).front().rfind("(src/components/nfcnetlink.", 0), 0U);
}

/// Keeps what programs send, without what differs from run to run.
class SentBytes : public NetlinkObserver {
 public:
  void OnSocket(std::uint64_t, SocketChange, std::uint32_t, int) override {}
  void OnSent(std::uint64_t, ByteView datagram) override {
    nlmsghdr header{};
    std::memcpy(&header, datagram.data(), sizeof(header));
    std::string text = fmt::format("type {} flags {:#x}:", header.nlmsg_type, header.nlmsg_flags);
    for (const auto byte : datagram.subspan(sizeof(header))) {
      text += fmt::format(" {:02x}", byte);
    }
    mSent.push_back(text);
  }
  void OnDelivered(std::uint64_t, std::uint32_t, std::uint32_t, ByteView, bool) override {}
  void OnReader(std::string_view) override {}

  std::vector<std::string> mSent;
};

TEST_F(NfcNetlink, SendsTheRequestsThatTheKernelExpects) {
  SentBytes bytes;
  mKernel->AddObserver(bytes);
  Start();
  Tap(Card);
  WaitForPolling();
  mController->StopPolling();
  mController->DeinitializeController();
  mKernel->RemoveObserver(bytes);
  // The kernel's header: command, version, two bytes of padding. Attributes: length, type, value.
  const std::string index = " 08 00 01 00 00 00 00 00";
  const std::string findNfc = "type 16 flags 0x5: 03 01 00 00 08 00 02 00 6e 66 63 00";
  const std::string findController = "type 16 flags 0x5: 03 01 00 00 0b 00 02 00 6e 6c 63 74 72 6c 00 00";
  const std::string groups = "type 16 flags 0x5: 03 00 00 00 08 00 02 00 6e 66 63 00";
  const std::string powerOn = "type 20 flags 0x5: 02 01 00 00" + index;
  const std::string start =
      "type 20 flags 0x5: 06 01 00 00" + index + " 08 00 0d 00 fc 00 00 00 08 00 03 00 fc 00 00 00";
  const std::vector<std::string> expected{findNfc,
                                          findController,
                                          groups,
                                          "type 20 flags 0x305: 01 01 00 00",
                                          powerOn,
                                          start,
                                          "type 20 flags 0x305: 08 01 00 00" + index,
                                          powerOn,
                                          start,
                                          "type 20 flags 0x5: 07 01 00 00" + index,
                                          "type 20 flags 0x5: 03 01 00 00" + index,
                                          "type 20 flags 0x5: 00 01 00 00"};
  EXPECT_EQ(bytes.mSent, expected);
}

TEST_F(NfcNetlink, SaysWhatCannotBeOpenedAndLeavesNothingBehind) {
  struct Case {
    const char* rule;
    const char* error;
    std::vector<const char*> logged;
  };
  constexpr const char* NoAnswer = ") Error receiving netlink message. Return code: Try again.";
  constexpr const char* NoGroup = ") Error in SendAndReceiveMessages within ResolveMulticastId.";
  constexpr const char* NoDevice = ") Error: Failed to send and receive NFC_CMD_GET_DEVICE.";
  constexpr const char* Refused = ") Error handler got: Operation not permitted";
  constexpr const char* WithoutGroup = "Could not resolve nfc multicast id. 1 recoverable";
  constexpr const char* WithoutReader = "Could find trf7970a reader. 1 recoverable";
  for (const auto& c : std::vector<Case>{
           {"GETFAMILY nth=1 errno=ENOENT", "Could not resolve nfc netlink family. 12", {}},
           {"GETFAMILY nth=3 errno=EPERM", WithoutGroup, {Refused, NoGroup}},
           {"GETFAMILY nth=3 drop", WithoutGroup, {NoAnswer, NoGroup}},
           {"GET_DEVICE errno=EPERM", WithoutReader, {Refused, NoDevice}},
           {"GET_DEVICE drop", WithoutReader, {NoAnswer, NoDevice}},
           {"GET_DEVICE no-done", WithoutReader, {NoAnswer, NoDevice}},
           {"GET_DEVICE sender=4711", WithoutReader, {NoAnswer, NoDevice}},
           {"GET_DEVICE seq=4711", WithoutReader, {NoAnswer, NoDevice}},
       }) {
    SCOPED_TRACE(c.rule);
    mKernel->ClearRules();
    mKernel->AddRule(c.rule);
    mLog.Clear();
    EXPECT_EQ(ErrorOfOpen(), c.error);
    const auto logged = mLog.Texts(Log::ELogLevel::Error);
    ASSERT_EQ(logged.size(), c.logged.size());
    for (size_t i = 0; i < logged.size(); ++i) {
      EXPECT_THAT(logged[i], EndsWith(c.logged[i]));
    }
    EXPECT_EQ(CountInterposedSockets(), 0);
    EXPECT_NE(ErrorOfStart(), "");
    EXPECT_NE(ErrorOfStop(), "");
    mController->DeinitializeController();
  }
  mKernel->ClearRules();
  EXPECT_EQ(ErrorOfOpen(), "");
  mController->DeinitializeController();
  mKernel.reset();
  EXPECT_EQ(ErrorOfOpen(), "Could not connect to generic netlink. 26");
}

TEST_F(NfcNetlink, AnExchangeIsOverAtItsTimeAlthoughMessagesKeepComing) {
  Make(1h, 0ms);  // which is no limit for the socket's own waiting
  EXPECT_EQ(ErrorOfOpen(), "") << "what is there and is the answer is always taken";
  mController->DeinitializeController();
  mKernel->AddRule("GETFAMILY nth=3 seq=4711");
  EXPECT_EQ(ErrorOfOpen(), "Could not resolve nfc multicast id. 1 recoverable");
}

TEST_F(NfcNetlink, TakesOnlyTheReaderThatIsTheKernelsDeviceZero) {
  mKernel->Plug();
  EXPECT_EQ(ErrorOfOpen(), "Could find trf7970a reader. 31 recoverable");
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error),
              ElementsAre(EndsWith(") Error: Unexpected device at index: 1")));
  mKernel->Unplug(0);
  mKernel->Unplug(1);
  mLog.Clear();
  EXPECT_EQ(ErrorOfOpen(), "Could find trf7970a reader. 31 recoverable");
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error), ElementsAre(HasSubstr("no NFC device")));
}

class NfcNetlinkWithoutFamily : public NfcNetlink {
 protected:
  NfcNetlinkWithoutFamily() : NfcNetlink({.kernel = {.hasFamily = false}}) {}
};

class NfcNetlinkWithoutListeners : public NfcNetlink {
 protected:
  NfcNetlinkWithoutListeners() : NfcNetlink({.kernel = {.admitsListeners = false}}) {}
};

class NfcNetlinkWithoutGroup : public NfcNetlink {
 protected:
  NfcNetlinkWithoutGroup() : NfcNetlink({.kernel = {.groupName = "else"}}) {}
};

TEST_F(NfcNetlinkWithoutFamily, IsRefusedByAKernelWithoutNfc) {
  EXPECT_EQ(ErrorOfOpen(), "Could not resolve nfc netlink family. 12");
}

TEST_F(NfcNetlinkWithoutGroup, IsRefusedByAKernelWithoutEvents) {
  EXPECT_EQ(ErrorOfOpen(), "Could not resolve nfc multicast id. 12");
  for (const uint32_t id : {0U, 0x80000000U, 0xFFFFFFFFU}) {  // no group has such a number
    mKernel.reset();
    mKernel = std::make_unique<InProcessVirtualNfc>(VirtualNfcSettings{.kernel = {.groupId = id}});
    EXPECT_EQ(ErrorOfOpen(), "Could not resolve nfc multicast id. 12") << id;
  }
}

TEST_F(NfcNetlinkWithoutListeners, AMonitorThatMayNotListenIsNoticedWhenPollingIsStarted) {
  Open();
  EXPECT_EQ(ErrorOfStart(), "Netlink sockets not initialized. Initialize controller first. 3 recoverable");
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error),
              ElementsAre(HasSubstr(") Error: Could not add membership to mcast nfc events: ")));
  mController->DeinitializeController();
  EXPECT_EQ(CountInterposedSockets(), 0);
}

TEST_F(NfcNetlink, AMonitorWhoseSocketCannotBeWaitedForIsNoticedWhenPollingIsStarted) {
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
  EXPECT_EQ(ErrorOfStart(), "Netlink sockets not initialized. Initialize controller first. 3 recoverable");
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error),
              ElementsAre(HasSubstr(") Error: Too many open descriptors to wait for events: ")));
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST_F(NfcNetlink, AMonitorThatCannotBeWokenByARequestEndsAllTheSame) {
  const auto close = [this] { return ErrorOf([this] { mController->DeinitializeController(); }); };
  for (const bool reopen : {false, true}) {
    SCOPED_TRACE(reopen);
    Gate gate;
    mInCallback = [&] { gate.Pass(); };
    Start();
    mKernel->PresentTag(Card);
    ASSERT_TRUE(gate.AwaitWaiting(1));
    mKernel->AddRule("DEVICE_ADDED close");
    mKernel->Plug();
    mLog.Clear();
    auto closed = std::async(std::launch::async, [&] { return reopen ? ErrorOfOpen() : close(); });
    EXPECT_TRUE(handover::Eventually([this] { return !mLog.Texts(Log::ELogLevel::Error).empty(); }));
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error), ElementsAre(HasSubstr("Failed to stop event monitor")));
    gate.Open();
    EXPECT_EQ(closed.get(), reopen ? "Could find trf7970a reader. 31 recoverable"
                                   : "Failed to stop event monitor 3 recoverable");
    EXPECT_EQ(close(), "");
    EXPECT_FALSE(mKernel->GetStatus().Device().powered);
    EXPECT_EQ(CountInterposedSockets(), 0);
    mKernel->ClearRules();
    mKernel->RemoveTags();
    mKernel->Unplug(1);
  }
}

TEST_F(NfcNetlink, OperationsOnAClosedControllerFailInsteadOfWaiting) {
  EXPECT_EQ(ErrorOfStart(), "Netlink sockets not initialized. Initialize controller first. 3 recoverable");
  EXPECT_EQ(ErrorOfStop(), "No device to power on/off. Initialize controller to find device. 31 recoverable");
  Start();
  mController->StopPolling();
  mController->DeinitializeController();
  EXPECT_EQ(ErrorOfStart(), "Netlink sockets not initialized. Initialize controller first. 3 recoverable");
  EXPECT_EQ(ErrorOfStop(), "No device to power on/off. Initialize controller to find device. 31 recoverable");
}

TEST_F(NfcNetlink, AnOpenControllerIsOpenedAnew) {
  Start();
  Open();
  EXPECT_TRUE(WaitForCommand(NFC_CMD_STOP_POLL));
  mController->StartPolling();
  EXPECT_EQ(CountInterposedSockets(), 2);
  EXPECT_EQ(Tap(Card), "MIFARE 04A12B5C");
  mKernel->AddRule("STOP_POLL nth=1 errno=EIO");  // best effort
  EXPECT_EQ(ErrorOfOpen(), "");
}

TEST_F(NfcNetlink, TheReaderIsOffAfterTheEndWhateverHappenedBefore) {
  struct Case {
    const char* name;
    std::function<void()> happen;
  };
  for (const auto& c : std::vector<Case>{
           {"polling", [] {}},
           {"opening anew failed",
            [this] {
              mKernel->AddRule("GET_DEVICE nth=1 errno=EIO");
              EXPECT_NE(ErrorOfOpen(), "");
            }},
           {"opening anew failed while the kernel still ends the old poll",
            [this] {
              mKernel->AddRule("GET_DEVICE nth=1 errno=EIO");
              mKernel->AddRule("STOP_POLL times=3 errno=EBUSY");
              EXPECT_NE(ErrorOfOpen(), "");
            }},
           {"the answer to the power request was lost",
            [this] {
              mController->StopPolling();
              mKernel->AddRule("DEV_UP drop");
              EXPECT_NE(ErrorOfStart(), "");
            }},
           {"the reader could not be switched off",
            [this] {
              mKernel->AddRule("DEV_DOWN nth=1 errno=EIO");
              EXPECT_NE(ErrorOfStop(), "");
            }},
       }) {
    for (const bool destroyed : {false, true}) {
      SCOPED_TRACE(c.name);
      Make(1h);
      Start();
      c.happen();
      if (destroyed) {
        mController.reset();
      } else {
        mController->DeinitializeController();
      }
      EXPECT_FALSE(mKernel->GetStatus().Device().powered);
      EXPECT_FALSE(mKernel->GetStatus().Device().polling);
      EXPECT_EQ(CountInterposedSockets(), 0);
      mKernel->ClearRules();
    }
  }
  Make(1h);
  Start();
  mLog.Clear();
  mKernel->AddRule("DEV_DOWN errno=EIO");
  mController.reset();
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error), Contains(HasSubstr(") The reader may stay on. Error: ")));
}

TEST_F(NfcNetlink, ClosesWhateverTheMonitorIsDoing) {
  const auto descriptors = OpenDescriptors(*mKernel);
  for (int i = 0; i < 200; ++i) {  // right after the start, in every phase of the monitor's set-up
    Open();
    mController->DeinitializeController();
  }
  // in the target callback
  Gate gate;
  mInCallback = [&] { gate.Pass(); };
  Start();
  mKernel->PresentTag(Card);
  ASSERT_TRUE(gate.AwaitWaiting(1));
  mController->StopPolling();
  auto closed = std::async(std::launch::async, [this] { mController->DeinitializeController(); });
  gate.Open();
  closed.get();
  EXPECT_FALSE(mKernel->GetStatus().Device().powered);
  mInCallback = {};
  mKernel->RemoveTags();
  // after it has ended by itself
  Start();
  mKernel->OverrunEvents();
  EXPECT_THAT(WaitFor(2), Contains(HasSubstr("The event monitor ended")));
  mController->StopPolling();
  mController->DeinitializeController();
  // when the kernel does not answer the request that wakes it
  mKernel->AddRule("UNSPEC drop");
  Start();
  mController->StopPolling();
  mController->DeinitializeController();
  EXPECT_EQ(CountInterposedSockets(), 0);
  EXPECT_LE(OpenDescriptors(*mKernel), descriptors);
}

// Polling

class NfcNetlinkPolling : public NfcNetlink, public ::testing::WithParamInterface<bool> {
 protected:
  NfcNetlinkPolling() : NfcNetlink({.kernel = {.assumeAlready = GetParam()}}) {}
};

TEST_P(NfcNetlinkPolling, StartingTwiceAndStoppingTwiceSucceed) {
  Start();
  EXPECT_EQ(ErrorOfStart(), "");
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Debug), Contains(EndsWith(") Reader is already polling.")));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Debug), Contains(EndsWith(") Reader is already powered on.")));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Debug),
              Contains(EndsWith(") Error handler got: Operation already in progress")));
  EXPECT_EQ(Tap(Card), "MIFARE 04A12B5C");
  EXPECT_TRUE(WaitForPolling());
  EXPECT_EQ(ErrorOfStop(), "");
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Info), Not(Contains(HasSubstr("Reader is not currently polling"))));
  EXPECT_EQ(ErrorOfStop(), "");
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Info),
              Contains(EndsWith(") Reader is not currently polling. Continuing.")));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Debug), Contains(EndsWith(") Reader is already powered off.")));
  EXPECT_FALSE(mKernel->GetStatus().Device().powered);
}

TEST_P(NfcNetlinkPolling, RecoversOnAnOpenPollingController) {
  Start();
  EXPECT_EQ(ErrorOfOpen(), "");
  EXPECT_EQ(ErrorOfStop(), "");
  mController->DeinitializeController();
  EXPECT_FALSE(mKernel->GetStatus().Device().powered);
  Start();
  EXPECT_EQ(Tap(Card), "MIFARE 04A12B5C");
}

INSTANTIATE_TEST_SUITE_P(Kernel, NfcNetlinkPolling, ::testing::Bool(),
                         [](const auto& mode) { return mode.param ? "AnsweringAlready" : "AsMeasured"; });

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
  mInCallback = [this] { mKernel->RemoveTags(); };  // before polling goes on: each is seen once
  Start();
  // A tag that the reader's chip does not understand kills the poll; the kernel goes on saying that it polls.
  EXPECT_EQ(Tap(Card), "MIFARE 04A12B5C");
  EXPECT_TRUE(WaitForPolling());
  mKernel->AddRule("START_POLL errno=EBUSY");
  EXPECT_EQ(ErrorOfStart(), "");  // ours, as far as we know
  mKernel->PresentTag(Card);
  EXPECT_THAT(WaitFor(3), Contains("error 16: Error in SendAndReceiveMsgs within StartPolling"));
  mKernel->ClearRules();
  EXPECT_EQ(ErrorOfStop(), "");
}

// Tags

TEST_F(NfcNetlink, ReadsEveryTechnology) {
  mInCallback = [this] { mKernel->RemoveTags(); };  // before polling goes on: each is seen once
  Start();
  EXPECT_EQ(Tap(MakeTag(TagKind::Mifare, "04A12B5C")), "MIFARE 04A12B5C");
  EXPECT_EQ(Tap(MakeTag(TagKind::Mifare, "04A12B5C112233")), "MIFARE 04A12B5C112233");
  EXPECT_EQ(Tap(MakeTag(TagKind::Iso14443A, "0102030405060708090A")), "ISO14443-A 0102030405060708090A");
  EXPECT_EQ(Tap(MakeTag(TagKind::NfcDep, "01020304")), "ISO-DEP 01020304");
  EXPECT_EQ(Tap(MakeTag(TagKind::Iso15693, "E007060504030201")), "ISO15693 E007060504030201");
  EXPECT_EQ(Tap(MakeTag(TagKind::Felica, "0102030405060708")), "FELICA ");
  EXPECT_EQ(Tap(MakeTag(TagKind::Iso14443B, "01020304")), "ISO14443-B ");
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Warning),
              ElementsAre(EndsWith(") Tag found with protocol 8, but no UID found. Continuing polling."),
                          EndsWith(") Tag found with protocol 64, but no UID found. Continuing polling.")));
  mLog.Clear();
  EXPECT_EQ(
      Tap(MakeRawTag(0x14, {{NFC_ATTR_PROTOCOLS, {0x14, 0, 0, 0}}, {NFC_ATTR_TARGET_NFCID1, {1, 2, 3, 4}}})),
      "Unsupported protocol 01020304");
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Warning), ElementsAre(EndsWith(") Unsupported tag protocol: 20")));
  EXPECT_EQ(Tap(MakeRawTag(0x04, {{NFC_ATTR_TARGET_NFCID1, {1, 2, 3, 4}}})), "Unsupported protocol ");
}

class NfcNetlinkChip : public NfcNetlink {
 protected:
  NfcNetlinkChip() : NfcNetlink({.kernel = {.stack = Stack::Nci}}) {}
};

TEST_F(NfcNetlinkChip, OfSeveralTagsTheLastIsDelivered) {
  Start();
  mKernel->PresentTags({Card, MakeTag(TagKind::Mifare, "11223344")});
  EXPECT_EQ(WaitFor(1).front(), "MIFARE 11223344");
}

TEST_F(NfcNetlink, EventsThatConcernNobodyChangeNothing) {
  Start();
  const auto event = [](uint8_t command, uint32_t device) {
    return MessageBuilder(20, 0, 0, 0).Genl(command, 1).U32(NFC_ATTR_DEVICE_INDEX, device).Finish();
  };
  const auto handled = [this] {
    const auto lines = mLog.Texts(Log::ELogLevel::Debug);
    return std::count_if(lines.begin(), lines.end(),
                         [](const auto& line) { return line.ends_with(") Processing netlink event..."); });
  };
  const auto before = mKernel->History().size();
  mKernel->SendRawEvent(event(NFC_EVENT_TARGET_LOST, 0));
  mKernel->SendRawEvent(event(NFC_EVENT_DEVICE_ADDED, 1));
  mKernel->SendRawEvent(event(NFC_EVENT_DEVICE_REMOVED, 1));
  mKernel->SendRawEvent(event(200, 0));
  EXPECT_TRUE(handover::Eventually([&] { return handled() >= 4; }));
  mKernel->Plug();  // another process finds a tag with another reader
  mKernel->SendRawEvent(event(NFC_EVENT_TARGETS_FOUND, 1));
  EXPECT_EQ(WaitFor(1).size(), 1U);
  EXPECT_EQ(ErrorOfStart(), "");  // ours still polls
  for (const auto& record : mKernel->History()) {
    EXPECT_NE(record.command, NFC_CMD_STOP_POLL);
  }
  // The monitor starts polling again after it has reported the tag, at the same time as this thread.
  EXPECT_TRUE(handover::Eventually([&] { return mKernel->History().size() - before >= 5; }))
      << "GET_TARGET, and twice DEV_UP and START_POLL";
  EXPECT_EQ(Tap(Card), "MIFARE 04A12B5C");
  EXPECT_TRUE(WaitForPolling());
}

TEST_P(NfcNetlinkPolling, ATagThatComesWhilePollingIsStoppedDoesNotSwitchTheReaderOnAgain) {
  for (int round = 0; round < 20; ++round) {
    Start();
    mKernel->PresentTag(Card);
    if (round % 2 == 0) {
      WaitFor(static_cast<size_t>(round) + 1);
    }
    mController->StopPolling();
    EXPECT_FALSE(mKernel->GetStatus().Device().powered);
    mController->DeinitializeController();
    EXPECT_FALSE(mKernel->GetStatus().Device().powered);
    EXPECT_FALSE(mKernel->GetStatus().Device().polling);
    mKernel->RemoveTags();
    const std::lock_guard lock(mMutex);
    mReported.resize(static_cast<size_t>(round) + 1);
  }
}

// Never silently deaf

TEST_P(NfcNetlinkPolling, WhateverEndsTheReadingOfTagsIsReported) {
  struct Case {
    const char* rule;
    std::vector<std::string> reported;
  };
  for (const auto& c : std::vector<Case>{
           {"START_POLL nth=1 errno=EPROTO",
            {"MIFARE 04A12B5C", "error 71: Error in SendAndReceiveMsgs within StartPolling"}},
           {"DEV_UP nth=1 errno=ENODEV",
            {"MIFARE 04A12B5C", "error 19: Could not to power on reader for polling"}},
           {"START_POLL nth=1 drop",
            {"MIFARE 04A12B5C", "error 1: Error in SendAndReceiveMsgs within StartPolling"}},
           {"GET_TARGET errno=ENODEV", {"error 19: The tag found could not be queried"}},
           {"GET_TARGET drop", {"error 1: The tag found could not be queried"}},
           {"GET_TARGET no-done", {"error 1: The tag found could not be queried"}},
       }) {
    SCOPED_TRACE(c.rule);
    mReported.clear();
    Start();
    mKernel->AddRule(c.rule);
    mKernel->PresentTag(Card);
    auto reported = WaitFor(c.reported.size());
    if (std::string_view(c.rule).ends_with("POLL nth=1 drop")) {
      reported.resize(c.reported.size());  // only the answer was lost, so the tag may have been found again
    }
    EXPECT_EQ(reported, c.reported);
    mKernel->RemoveTags();
    mKernel->ClearRules();
    Open();  // the cure
    mController->StartPolling();
    mReported.clear();
    EXPECT_EQ(Tap(Card), "MIFARE 04A12B5C");
    EXPECT_EQ(ErrorOfStop(), "");
    mController->DeinitializeController();
  }
}

TEST_F(NfcNetlink, EventsThatAreLostAreReported) {
  Start();
  mKernel->OverrunEvents();
  EXPECT_THAT(WaitFor(1), ElementsAre("error 5: The event monitor ended"));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error),
              Contains(EndsWith(") nl_recvmsgs got an error: Out of memory.")));
  EXPECT_EQ(ErrorOfStart(), "Netlink sockets not initialized. Initialize controller first. 3 recoverable");
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
  EXPECT_EQ(Tap(Card), "MIFARE 04A12B5C");
}

TEST_F(NfcNetlink, ACallbackThatThrowsDoesNotEndTheReading) {
  struct NoStdException {};
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
    mKernel->PresentTag(Card);
    EXPECT_TRUE(WaitForCommand(NFC_CMD_START_POLL, polls));
  }
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error),
              ElementsAre(EndsWith(") The target callback failed: callback"),
                          EndsWith(") The target callback failed: unknown exception")));
  mController->StopPolling();
  mController->DeinitializeController();
  mController->SetErrorCallback([](const CRfidError&) { throw NoStdException(); });
  mController->InitializeController([](const CToken&) {});
  mController->StartPolling();
  mKernel->OverrunEvents();
  EXPECT_TRUE(handover::Eventually([this] {
    return !mLog.Texts(Log::ELogLevel::Error).empty() &&
           mLog.Texts(Log::ELogLevel::Error)
               .back()
               .ends_with(") The error callback failed: unknown exception");
  }));
}

// Polling that ends without an event

TEST_F(NfcNetlink, PollingThatFindsNothingIsRenewedQuietly) {
  Make(20ms);
  Start();
  mLog.Clear();
  EXPECT_TRUE(WaitForCommand(NFC_CMD_STOP_POLL, 3));
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Info), IsEmpty());
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Debug), Contains(EndsWith(") Polling renewed.")));
  EXPECT_EQ(Tap(Card), "MIFARE 04A12B5C");
  mController->StopPolling();
  const auto after = mKernel->GetStatus().Commands(NFC_CMD_STOP_POLL);
  mController->DeinitializeController();
  EXPECT_EQ(mKernel->GetStatus().Commands(NFC_CMD_STOP_POLL), after) << "not looked after any more";
}

TEST_F(NfcNetlink, ACardIsReadAgainAfterPollingEndedWithoutAnEvent) {
  constexpr const char* Ended = ") Polling had ended unnoticed. Started it again.";
  constexpr const char* Disagree =
      ") Kernel and reader disagree about polling. Switching the reader off and on.";
  constexpr const char* Claimed =
      ") The kernel says that the reader polls already, but nobody started it. Checking it soon.";
  struct Case {
    const char* name;
    std::function<void()> happen;
    std::vector<const char*> warnings;
  };
  mInCallback = [this] { mKernel->RemoveTags(); };
  for (const auto& c : std::vector<Case>{
           {"a find is lost",
            [this] {
              mKernel->AddRule("TARGETS_FOUND nth=1 drop");
              mKernel->PresentTagFor(Card, 30ms);
            },
            {Ended}},
           {"a transfer to the reader fails", [this] { mKernel->KillPoll(); }, {}},
           {"the first transfer after a card fails",
            [this] {
              mKernel->AddRule("START_POLL nth=1 fault=poll-dead");
              Tap(Card);
            },
            {}},
           {"reader and kernel disagree", [this] { mKernel->SetFault(Fault::OutOfStep); }, {Disagree}},
           {"the chip polls and the kernel does not",
            [this] { mKernel->SetFault(Fault::ChipPolls); },
            {Disagree}},
           {"the restart finds the poll on already",
            [this] {
              mKernel->AddRule("START_POLL nth=1 errno=EALREADY");
              Tap(Card);
            },
            {Claimed}},
           {"an event is cut off",
            [this] { mKernel->SendRawEvent(MessageBuilder(20, 0, 0, 0).Finish()); },
            {}},
       }) {
    SCOPED_TRACE(c.name);
    Make(100ms);
    Start();
    mLog.Clear();
    c.happen();
    const auto stops = mKernel->GetStatus().Commands(NFC_CMD_STOP_POLL);
    EXPECT_TRUE(WaitForCommand(NFC_CMD_STOP_POLL, stops + 1));
    mKernel->ClearRules();
    mReported.clear();
    EXPECT_EQ(Tap(Card), "MIFARE 04A12B5C");
    const auto warnings = mLog.Texts(Log::ELogLevel::Warning);
    for (const auto* warning : c.warnings) {
      EXPECT_THAT(warnings, Contains(EndsWith(warning)));
    }
    EXPECT_EQ(warnings.empty(), c.warnings.empty());
    EXPECT_EQ(ErrorOfStop(), "");
    mController->DeinitializeController();
  }
}

class NfcNetlinkOnNci : public NfcNetlink {
 protected:
  NfcNetlinkOnNci() : NfcNetlink({.kernel = {.stack = Stack::Nci}}) {}
};

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
           {"looking after polling",
            [this] {
              mKernel->SendRawEvent(MessageBuilder(20, 0, 0, 0).Finish());
              EXPECT_TRUE(WaitForCommand(NFC_CMD_START_POLL, mKernel->GetStatus().Commands(6) + 1));
            }},
       }) {
    SCOPED_TRACE(c.name);
    mLog.Clear();
    Start();
    mKernel->AddRule("STOP_POLL cross times=1");
    c.stop();
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Warning), Contains(HasSubstr(") Stopping the polling took ")));
    mKernel->ClearRules();
    ASSERT_FALSE(mKernel->GetStatus().hung);
    EXPECT_EQ(ErrorOfOpen(), "");
    mController->StartPolling();
    EXPECT_EQ(Tap(Card), "MIFARE 04A12B5C");
    mController->StopPolling();
    mController->DeinitializeController();
    mReported.clear();
  }
}

TEST_F(NfcNetlinkOnNci, NoOtherCommandIsInterrupted) {
  // One that takes longer than a STOP_POLL may, right after a STOP_POLL on the same thread.
  Start();
  mController->StopPolling();
  mKernel->AddRule("START_POLL delay=2500");
  mController->StartPolling();
  for (const auto& record : mKernel->History()) {
    EXPECT_NE(record.error, 512) << int{record.command};
  }
  EXPECT_EQ(Tap(Card), "MIFARE 04A12B5C");
}

TEST_F(NfcNetlink, AStopThatGetsNoAnswerEndsAlthoughItsTimeLimitIsTheShorterOne) {
  Make(1h, 2500ms);
  Start();
  mKernel->AddRule("STOP_POLL nth=1 drop");
  EXPECT_EQ(ErrorOfStop(), "Error in SendAndReceiveMsgs in StopPolling. 1 recoverable");
}

TEST_F(NfcNetlink, APollThatTheKernelOnlyClaimsIsLookedAfterLongBeforeThePeriodIsOver) {
  mKernel->AddRule("START_POLL nth=1 errno=EALREADY");
  Start();  // with a period of an hour
  EXPECT_TRUE(WaitForPolling());
  EXPECT_EQ(Tap(Card), "MIFARE 04A12B5C");
}

TEST_F(NfcNetlink, WhatTheLookCannotCureIsReportedOnce) {
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
    mReported.clear();
    const auto commands = mKernel->History().size();
    mKernel->ClearRules();
    EXPECT_EQ(ErrorOfStop(), "");
    EXPECT_EQ(mKernel->History().size(), commands + 2) << "what is reported is not tried again";
    mController->DeinitializeController();
  }
  Make(1h);
  Start();
  mKernel->Unplug();
  EXPECT_THAT(WaitFor(1), ElementsAre("error 19: Error in SendAndReceiveMsgs in StopPolling."));
}

class NfcNetlinkFast : public NfcNetlink {
 protected:
  NfcNetlinkFast() : NfcNetlink({.kernel = {}, .detectionDelay = 0ms}) {}
};

TEST_F(NfcNetlinkFast, TenThousandCardsAndAThousandOpeningsLeaveNothingBehind) {
  Log::SetLogLevel(Log::ELogLevel::Error);
  const auto descriptors = OpenDescriptors(*mKernel);
  size_t cards = 0;
  for (int round = 0; round < 1000; ++round) {
    Start();
    for (int i = 0; i < 10; ++i) {
      mKernel->PresentTag(MakeTag(TagKind::Mifare, fmt::format("{:08X}", ++cards)));
      const std::string wanted = fmt::format("MIFARE {:08X}", cards);
      std::unique_lock lock(mMutex);
      ASSERT_TRUE(mArrived.wait_for(lock, handover::kPatience, [&] {
        return !mReported.empty() && mReported.back() == wanted;
      })) << wanted;
    }
    mKernel->RemoveTags();
    mController->StopPolling();
    mController->DeinitializeController();
    const std::lock_guard lock(mMutex);
    mReported.clear();
  }
  EXPECT_LE(OpenDescriptors(*mKernel), descriptors);
  EXPECT_EQ(CountInterposedSockets(), 0);
}
