#include "tools/kernelbed/kerneltest.h"

#include <fmt/format.h>
#include <linux/nfc.h>
#include <netlink/genl/ctrl.h>

#include <algorithm>
#include <csignal>
#include <utility>

#include "tests/evidence.h"
#include "tools/kernelbed/digitalreader.h"
#include "tools/kernelbed/ncichip.h"

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::HasSubstr;

static constexpr size_t kShownLines = 150;

std::unique_ptr<kernelbed::Reader> MakeReader(Stack stack, FILE* log) {
  switch (stack) {
    case Stack::Digital:
      return std::make_unique<kernelbed::DigitalReader>(KERNELBED_MODULE, log);
    case Stack::Nci:
      return std::make_unique<kernelbed::NciChip>(log);
  }
  return nullptr;
}

void virtualnfc::PrintTo(Stack stack, std::ostream* stream) {
  *stream << (stack == Stack::Digital ? "Digital" : "Nci");
}

std::string StackName(const ::testing::TestParamInfo<Stack>& info) {
  return ::testing::PrintToString(info.param);
}

KernelTest::KernelTest(Stack stack, std::vector<std::string> launcher)
    : StationOnKernel(NewFolder("kernel"), std::move(launcher)),
      mStack(stack),
      mReaderLog(fopen(Path("reader.log").c_str(), "w"), fclose),
      mReader(MakeReader(stack, mReaderLog.get())) {
  Reader("plug");
}

KernelTest::~KernelTest() {
  if (HasFailure()) {
    ShowLogs();
    KeepFolder();  // if the folder outlives the guest
  }
}

void KernelTest::ShowLogs() const {
  if (mSupervisor) {
    fmt::print(stderr, "Told to the supervisor: {}\n", fmt::join(mSupervisor->Notified(), ", "));
  }
  for (const auto* name : {"reader.log", "log"}) {
    fmt::print(stderr, "The last lines of {}:{}\n", name, Tail(ReadFile(Path(name)), kShownLines));
  }
}

void KernelTest::TearDown() {
  if (mDaemon && !mDaemon->IsOver()) {
    mDaemon->Signal(SIGINT);
    ExpectOrderlyEnd();
  }
}

void KernelTest::ExpectOrderlyEnd() {
  EXPECT_EQ(mDaemon->Wait().value_or("still running"), "exit 0");
  if (IsPowered().has_value()) {
    EXPECT_EQ(IsPowered(), false);
    EXPECT_NO_THROW(Reader("wait ready"));  // so it does not poll either
  }
}

void KernelTest::StartDaemon() {
  ASSERT_TRUE(StationOnKernel::StartDaemon({"-vv"})) << Log();
  mSupervisor->Clear();
}

void KernelTest::StartEnabled() {
  StartDaemon();
  ASSERT_TRUE(EnableDaemon());
  mSupervisor->Clear();
  ASSERT_TRUE(Logs("Polling started."));
}

void KernelTest::Enable() {
  mSupervisor->Clear();
  EXPECT_EQ(mSupervisor->Enable(), "Ok");
}

void KernelTest::Disable() {
  mSupervisor->Clear();
  EXPECT_EQ(mSupervisor->Disable(), "Ok");
  EXPECT_TRUE(Notifies("Disabled"));
}

::testing::AssertionResult KernelTest::Logs(const std::string& text) const {
  return Becomes([this] { return Log(); }, HasSubstr(text));
}

::testing::AssertionResult KernelTest::Notifies(const std::string& notification) const {
  return Becomes([this] { return mSupervisor->Notified(); }, Contains(notification));
}

void KernelTest::Reader(const std::string& command) {
  mReader->Command(command);
  // The kernel frees the number of a device shortly after it was unplugged.
  EXPECT_TRUE(command != "plug" || Eventually([this] {
                if (!IsPowered().has_value()) {
                  mReader->Command("unplug");
                  mReader->Command("plug");
                }
                return IsPowered().has_value();
              }));
}

std::string KernelTest::NewUid() {
  return fmt::format("04{:06X}", ++mCards);
}

::testing::AssertionResult KernelTest::IsNotified(const std::string& uid) const {
  return Notifies("token " + uid + " ERfidUidNotInList");
}

void KernelTest::ExpectCardIsRead() {
  const auto uid = NewUid();
  Reader("put a2 " + uid);
  EXPECT_TRUE(IsNotified(uid));
  Reader("take");
}

std::string KernelTest::Outcome() {
  const auto uid = NewUid();
  const auto isTold = [this](const std::string& what) {
    return mSupervisor->WaitFor(what, 1, std::chrono::seconds(0));
  };
  Reader("swap a2 " + uid);
  EXPECT_TRUE(Becomes([this] { return mSupervisor->Notified(); },
                      Contains(AnyOf("Error", "token " + uid + " ERfidUidNotInList"))));
  Reader("take");
  if (!isTold("Error")) {
    return "read";
  }
  EXPECT_TRUE(Becomes([this] { return mSupervisor->Notified(); }, Contains(AnyOf("Disabled", "FatalError"))));
  return isTold("FatalError") ? "fatal" : "recovered";
}

void KernelTest::ExpectCured(const std::string& outcome) {
  if (outcome == "recovered") {
    Enable();
  } else if (outcome == "fatal") {
    mDaemon->Signal(SIGINT);
    ExpectOrderlyEnd();
    StartEnabled();
  }
  ExpectCardIsRead();
}

nfctest::NfcClient KernelTest::Client() const {
  const nfctest::NfcClient anyFamily;
  const int family = genl_ctrl_resolve(anyFamily.Get(), "nfc");
  const int group = genl_ctrl_resolve_grp(anyFamily.Get(), "nfc", "events");
  return nfctest::NfcClient(family, static_cast<uint32_t>(group));
}

std::optional<bool> KernelTest::IsPowered() const {
  for (const auto& message : Client().Dump(NFC_CMD_GET_DEVICE)) {
    const auto attributes = virtualnfc::ParseAttributes(message.Attributes());
    const auto index = virtualnfc::GetU32(attributes, NFC_ATTR_DEVICE_INDEX);
    const auto powered = attributes.find(NFC_ATTR_DEVICE_POWERED);
    if (index == 0U && powered != attributes.end()) {
      return powered->second.at(0) != 0;
    }
  }
  return std::nullopt;
}
