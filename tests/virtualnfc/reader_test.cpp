// Faults of the simulated reader without an event or an error. tests/kernel/conformance compares the others
// with the real kernel.

#include <gtest/gtest.h>

#include "tools/harness/nfcclient.h"
#include "tools/virtual-nfc/preload/inprocess.h"

namespace {

using namespace std::chrono_literals;
using nfctest::NfcClient;
using virtualnfc::Fault;
using virtualnfc::InProcessVirtualNfc;

class VirtualNfcFaults : public testing::Test {
 protected:
  int Command(std::uint8_t command) const { return mClient.Command(command).value_or(-1); }

  /// Presents a tag; the number of tags found so far. The server looks for tags before it answers a command.
  std::uint32_t FoundWithATag() {
    mKernel.PresentTag(MakeTag(virtualnfc::TagKind::Mifare, "01020304"));
    Command(NFC_CMD_GET_DEVICE);
    const auto found = mKernel.GetStatus().Device().targetsFound;
    mKernel.RemoveTags();
    return found;
  }

  InProcessVirtualNfc mKernel{{.kernel = {}, .detectionDelay = 0ms}};
  const NfcClient mClient;
};

TEST_F(VirtualNfcFaults, APollThatIsDeadFromTheStartFindsNothing) {
  mKernel.AddRule("START_POLL fault=poll-dead times=1");
  ASSERT_TRUE(mClient.Poll());
  EXPECT_EQ(FoundWithATag(), 0U);
  EXPECT_EQ(Command(NFC_CMD_STOP_POLL), 0);
  EXPECT_EQ(Command(NFC_CMD_START_POLL), 0);
  EXPECT_EQ(FoundWithATag(), 1U);
}

TEST_F(VirtualNfcFaults, ARunawayPollSwallowsTheNextTag) {
  ASSERT_TRUE(mClient.Poll());
  EXPECT_TRUE(mKernel.SetFault(Fault::Runaway));
  EXPECT_EQ(Command(NFC_CMD_START_POLL), EBUSY);
  EXPECT_EQ(Command(NFC_CMD_STOP_POLL), EINVAL);
  EXPECT_EQ(Command(NFC_CMD_DEV_DOWN), 0);
  EXPECT_EQ(Command(NFC_CMD_DEV_UP), 0);
  EXPECT_EQ(Command(NFC_CMD_START_POLL), EBUSY);
  EXPECT_EQ(FoundWithATag(), 0U);
  EXPECT_EQ(Command(NFC_CMD_START_POLL), 0);
  EXPECT_EQ(FoundWithATag(), 1U);
}

}  // namespace
