#include "tools/kernelbed/kerneltest.h"

#include <fmt/format.h>
#include <linux/nfc.h>
#include <netlink/genl/ctrl.h>

#include <algorithm>
#include <csignal>
#include <utility>

#include "tools/kernelbed/digitalreader.h"
#include "tools/kernelbed/ncichip.h"

namespace {

constexpr size_t kShownLines = 150;

/// The last lines of a file.
std::string Tail(const std::string& path) {
  const auto content = ReadFile(path);
  auto begin = content.size();
  for (size_t line = 0; line <= kShownLines && begin != std::string::npos && begin > 0; ++line) {
    begin = content.rfind('\n', begin - 1);
  }
  return begin == std::string::npos ? content : content.substr(begin);
}

}  // namespace

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
    fmt::print(stderr, "The last lines of {}:{}\n", name, Tail(Path(name)));
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
    EXPECT_NO_THROW(Reader("wait ready"));  // it does not poll either
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
  ASSERT_TRUE(WaitForLog("Polling started."));
}

void KernelTest::Enable() {
  mSupervisor->Clear();
  EXPECT_EQ(mSupervisor->Enable(), "Ok");
}

void KernelTest::Disable() {
  mSupervisor->Clear();
  EXPECT_EQ(mSupervisor->Disable(), "Ok");
  EXPECT_TRUE(mSupervisor->WaitFor("Disabled"));
}

bool KernelTest::WaitForLog(const std::string& text) const {
  return Eventually([&] { return Log().find(text) != std::string::npos; });
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

bool KernelTest::IsNotified(const std::string& uid) const {
  return mSupervisor->WaitFor("token " + uid + " ERfidUidNotInList");
}

void KernelTest::ExpectCardIsRead() {
  const auto uid = NewUid();
  Reader("put a2 " + uid);
  EXPECT_TRUE(IsNotified(uid)) << uid;
  Reader("take");
}

std::string KernelTest::Outcome() {
  const auto uid = NewUid();
  const auto isTold = [this](const std::string& what) {
    return mSupervisor->WaitFor(what, 1, std::chrono::seconds(0));
  };
  const auto isOver = [&] { return isTold("Disabled") || isTold("FatalError"); };
  Reader("swap a2 " + uid);
  EXPECT_TRUE(Eventually([&] { return isTold("Error") || isTold("token " + uid + " ERfidUidNotInList"); }));
  Reader("take");
  if (!isTold("Error")) {
    return "read";
  }
  EXPECT_TRUE(Eventually(isOver));
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
