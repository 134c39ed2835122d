// The simulated kernel beyond what tests/kernel/conformance compares with the real one: settings, faults,
// several devices, and libnl's view.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/kernelbed/nfcclient.h"
#include "tools/virtual-nfc/preload/inprocess.h"

namespace {

using nfctest::Message;
using nfctest::NfcClient;
using testing::SizeIs;
using virtualnfc::InProcessVirtualNfc;
using virtualnfc::VirtualNfcSettings;

TEST(VirtualNfcFamily, IsListedToLibnlWithThisKernelsNumbers) {
  for (const auto& [family, group] : {std::pair<std::uint16_t, std::uint32_t>{20, 3}, {31, 9}}) {
    VirtualNfcSettings settings;
    settings.kernel.familyId = family;
    settings.kernel.groupId = group;
    const InProcessVirtualNfc kernel(settings);
    const NfcClient client;
    EXPECT_EQ(genl_ctrl_resolve_grp(client.Get(), "nfc", "events"), static_cast<int>(group));
    nl_cache* cache = nullptr;
    ASSERT_EQ(genl_ctrl_alloc_cache(client.Get(), &cache), 0);
    genl_family* listed = genl_ctrl_search_by_name(cache, "nfc");
    ASSERT_NE(listed, nullptr);
    EXPECT_EQ(genl_family_get_id(listed), family);
    genl_family_put(listed);
    nl_cache_free(cache);
  }
}

TEST(VirtualNfcDevice, IsListedAfterTheOthersInOneDatagram) {
  InProcessVirtualNfc kernel;
  EXPECT_EQ(kernel.Plug(), 1U);
  EXPECT_EQ(kernel.Plug(), 2U);
  kernel.Unplug(0);
  EXPECT_EQ(kernel.Plug(), 0U);
  const NfcClient client;
  const std::vector<Message> dump = client.Dump(NFC_CMD_GET_DEVICE);
  ASSERT_THAT(dump, SizeIs(4));
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(dump[i].Attributes()[7], "120"[i]);
  }
  client.Send(NFC_CMD_GET_DEVICE, {}, NLM_F_REQUEST | NLM_F_DUMP);
  EXPECT_EQ(client.ReceiveDatagram().size(), 3U * (20 + 44));
}

TEST(VirtualNfcDevice, FindsNothingInAPollThatIsDeadFromItsStart) {
  InProcessVirtualNfc kernel({.kernel = {}, .detectionDelay = std::chrono::milliseconds(0)});
  kernel.AddRule("START_POLL fault=poll-dead times=1");
  kernel.PresentTag(MakeTag(virtualnfc::TagKind::Mifare, "01020304"));
  const NfcClient client;
  ASSERT_TRUE(client.Poll());
  client.Command(NFC_CMD_GET_DEVICE);  // the server looks for tags before it answers
  EXPECT_EQ(kernel.GetStatus().Device().targetsFound, 0U);
  EXPECT_EQ(client.Command(NFC_CMD_STOP_POLL), 0);
  EXPECT_EQ(client.Command(NFC_CMD_START_POLL), 0);
  EXPECT_TRUE(
      kernel.WaitFor([&](const virtualnfc::Status& status) { return status.Device().targetsFound == 1; }));
}

}  // namespace
