// What the kernel answers to each command, seen by programs with real libnl.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>

#include "inprocess.h"
#include "nfcclient.h"

namespace {

using nfctest::Message;
using nfctest::NfcClient;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using virtualnfc::Bytes;
using virtualnfc::Fault;
using virtualnfc::InProcessVirtualNfc;
using virtualnfc::Stack;
using virtualnfc::Status;
using virtualnfc::VirtualNfcSettings;

TEST(VirtualNfcFamily, IsResolvedByLibnlUnderTheNumbersOfThisKernel) {
  for (const auto& [family, group] : {std::pair<std::uint16_t, std::uint32_t>{20, 3}, {31, 9}}) {
    VirtualNfcSettings settings;
    settings.kernel.familyId = family;
    settings.kernel.groupId = group;
    const InProcessVirtualNfc kernel(settings);
    const NfcClient client;
    EXPECT_EQ(genl_ctrl_resolve(client.Get(), "nfc"), family);
    EXPECT_EQ(genl_ctrl_resolve(client.Get(), "nlctrl"), GENL_ID_CTRL);
    EXPECT_EQ(genl_ctrl_resolve_grp(client.Get(), "nfc", "events"), static_cast<int>(group));
    EXPECT_EQ(genl_ctrl_resolve(client.Get(), "wlan"), -NLE_OBJ_NOTFOUND);
  }
}

TEST(VirtualNfcFamily, ShowsItsVersionAttributesAndCommandsToLibnl) {
  const InProcessVirtualNfc kernel;
  const NfcClient client;
  nl_cache* cache = nullptr;
  ASSERT_EQ(genl_ctrl_alloc_cache(client.Get(), &cache), 0);
  genl_family* family = genl_ctrl_search_by_name(cache, "nfc");
  ASSERT_NE(family, nullptr);
  EXPECT_EQ(genl_family_get_version(family), 1U);
  EXPECT_EQ(genl_family_get_hdrsize(family), 0U);
  EXPECT_EQ(genl_family_get_maxattr(family), 31U);
  genl_family_put(family);
  nl_cache_free(cache);
}

// --- who may do what in which state ---

struct Step {
  char socket;
  std::uint8_t command;
  int error;
};

struct Scenario {
  const char* name;
  std::vector<Step> steps;
  bool assumeAlready = false;
  bool privileged = true;
  std::uint32_t device = 0;
};

void PrintTo(const Scenario& scenario, std::ostream* out) {
  *out << scenario.name;
}

class VirtualNfcCommands : public testing::TestWithParam<Scenario> {};

TEST_P(VirtualNfcCommands, AreAnsweredAsTheKernelDoes) {
  VirtualNfcSettings settings;
  settings.kernel.assumeAlready = GetParam().assumeAlready;
  settings.kernel.privileged = GetParam().privileged;
  const InProcessVirtualNfc kernel(settings);
  const NfcClient a;
  const NfcClient b;
  int number = 0;
  for (const Step& step : GetParam().steps) {
    SCOPED_TRACE("step " + std::to_string(++number) + ", socket " + step.socket + ", " +
                 virtualnfc::CommandName(step.command));
    EXPECT_EQ((step.socket == 'a' ? a : b).Command(step.command, GetParam().device), step.error);
  }
}

constexpr std::uint8_t kUp = NFC_CMD_DEV_UP;
constexpr std::uint8_t kDown = NFC_CMD_DEV_DOWN;
constexpr std::uint8_t kStart = NFC_CMD_START_POLL;
constexpr std::uint8_t kStop = NFC_CMD_STOP_POLL;

INSTANTIATE_TEST_SUITE_P(
    Facts, VirtualNfcCommands,
    testing::Values(
        Scenario{"PowerIsEverybodys",
                 {{'a', kUp, 0}, {'b', kUp, EALREADY}, {'b', kDown, 0}, {'a', kDown, EALREADY}}},
        Scenario{"PollingNeedsPower", {{'a', kStart, ENODEV}, {'a', kStop, EINVAL}}},
        Scenario{"APollHasAnOwner",
                 {{'a', kUp, 0},
                  {'a', kStart, 0},
                  {'a', kStart, EBUSY},
                  {'b', kStart, EBUSY},
                  {'b', kStop, EBUSY},
                  {'b', kUp, EALREADY},
                  {'b', kDown, EBUSY},
                  {'a', kStop, 0},
                  {'a', kStop, EINVAL},
                  {'b', kStart, 0},
                  {'a', kStop, EBUSY},
                  {'b', kStop, 0},
                  {'a', kDown, 0}}},
        Scenario{"TheDeviceIsNotThere",
                 {{'a', kUp, ENODEV}, {'a', kDown, ENODEV}, {'a', kStart, ENODEV}, {'a', kStop, ENODEV}},
                 false,
                 true,
                 7},
        Scenario{"WhatMightBeAssumed",
                 {{'a', kUp, 0},
                  {'a', kStop, EALREADY},
                  {'a', kStart, 0},
                  {'a', kStart, EALREADY},
                  {'b', kStop, EBUSY},
                  {'a', kStop, 0}},
                 true},
        Scenario{"WithoutPrivilege",
                 {{'a', kUp, EPERM},
                  {'a', kDown, EPERM},
                  {'a', kStart, EPERM},
                  {'a', kStop, EPERM},
                  {'a', NFC_CMD_GET_DEVICE, 0}},
                 false,
                 false},
        Scenario{"UnknownCommandsAndEventNumbers",
                 {{'a', NFC_CMD_UNSPEC, EOPNOTSUPP},
                  {'a', NFC_EVENT_TARGETS_FOUND, EOPNOTSUPP},
                  {'a', NFC_CMD_GET_TARGET, EOPNOTSUPP},
                  {'a', 200, EOPNOTSUPP}}}),
    [](const auto& one) { return one.param.name; });

// --- the form of the answers ---

TEST(VirtualNfcAnswers, AcknowledgeOnlyWhenAskedAndRepeatARequestThatFailed) {
  const InProcessVirtualNfc kernel;
  const NfcClient client;

  client.Send(NFC_CMD_DEV_UP, {{NFC_ATTR_DEVICE_INDEX, 0}}, NLM_F_REQUEST);
  EXPECT_THAT(client.Received(), IsEmpty());

  client.Send(NFC_CMD_DEV_DOWN, {{NFC_ATTR_DEVICE_INDEX, 0}}, NLM_F_REQUEST | NLM_F_ACK);
  std::vector<Message> answer = client.Received();
  ASSERT_THAT(answer, SizeIs(1));
  EXPECT_EQ(answer[0].header.nlmsg_len, 36U);
  EXPECT_EQ(answer[0].header.nlmsg_flags, 0x100);
  EXPECT_EQ(answer[0].header.nlmsg_seq, 77U);
  EXPECT_EQ(answer[0].header.nlmsg_pid, client.Port());
  EXPECT_EQ(answer[0].Error(), 0);

  client.Send(NFC_CMD_DEV_DOWN, {{NFC_ATTR_DEVICE_INDEX, 0}}, NLM_F_REQUEST);
  answer = client.Received();
  ASSERT_THAT(answer, SizeIs(1));
  EXPECT_EQ(answer[0].header.nlmsg_len, 36U + 4 + 8);
  EXPECT_EQ(answer[0].header.nlmsg_flags, 0);
  EXPECT_EQ(answer[0].Error(), EALREADY);
  EXPECT_EQ(answer[0].payload.back(), 0);
  EXPECT_EQ(answer[0].payload[4 + 16], NFC_CMD_DEV_DOWN);
}

TEST(VirtualNfcAnswers, AreNotGivenToAMessageWithoutTheRequestFlag) {
  InProcessVirtualNfc kernel;
  const NfcClient client;
  client.Send(NFC_CMD_UNSPEC, {}, 0);
  EXPECT_THAT(client.Received(), IsEmpty());
  EXPECT_EQ(kernel.GetStatus().Commands(NFC_CMD_UNSPEC), 0U);
}

TEST(VirtualNfcAnswers, RefuseRequestsThatLackSomething) {
  const InProcessVirtualNfc kernel;
  const NfcClient client;
  ASSERT_EQ(client.Command(NFC_CMD_DEV_UP), 0);
  const auto ask = [&](std::uint8_t command, const std::vector<std::pair<int, std::uint32_t>>& attributes) {
    client.Send(command, attributes);
    return client.LastError();
  };
  EXPECT_EQ(ask(NFC_CMD_DEV_UP, {}), EINVAL);
  EXPECT_EQ(ask(NFC_CMD_START_POLL, {{NFC_ATTR_DEVICE_INDEX, 0}}), EINVAL);
  EXPECT_EQ(ask(NFC_CMD_START_POLL, {{NFC_ATTR_DEVICE_INDEX, 0}, {NFC_ATTR_PROTOCOLS, 0}}), EINVAL);
  EXPECT_EQ(ask(NFC_CMD_GET_DEVICE, {{NFC_ATTR_DEVICE_INDEX, 3}}), ENODEV);
  client.Send(NFC_CMD_DEV_UP, {{NFC_ATTR_DEVICE_INDEX, 0}}, NLM_F_REQUEST | NLM_F_ACK, 999);
  EXPECT_EQ(client.LastError(), ENOENT);
  EXPECT_EQ(ask(NFC_CMD_START_POLL, {{NFC_ATTR_DEVICE_INDEX, 0}, {NFC_ATTR_PROTOCOLS, 0x03}}), EINVAL)
      << "nothing that this device can";
  // The initiator's protocols go first.
  EXPECT_EQ(ask(NFC_CMD_START_POLL,
                {{NFC_ATTR_DEVICE_INDEX, 0}, {NFC_ATTR_PROTOCOLS, 0x04}, {NFC_ATTR_IM_PROTOCOLS, 0x80}}),
            0);
  EXPECT_EQ(kernel.GetStatus().Device().mask, 0x80U);
}

TEST(VirtualNfcAnswers, OfADumpEndWithItsErrorWhichLibnlDoesNotSee) {
  const InProcessVirtualNfc kernel;
  const NfcClient client;
  const std::vector<Message> none = client.Dump(NFC_CMD_GET_TARGET, 0);
  ASSERT_THAT(none, SizeIs(1));
  EXPECT_EQ(none[0].header.nlmsg_type, NLMSG_DONE);
  EXPECT_EQ(none[0].header.nlmsg_flags, NLM_F_MULTI);
  EXPECT_EQ(none[0].header.nlmsg_len, 20U);
  EXPECT_EQ(none[0].Error(), 0);

  EXPECT_EQ(client.Dump(NFC_CMD_GET_TARGET).at(0).Error(), EINVAL);
  EXPECT_EQ(client.Dump(NFC_CMD_GET_TARGET, 9).at(0).Error(), ENODEV);
  client.Send(NFC_CMD_GET_TARGET, {{NFC_ATTR_DEVICE_INDEX, 9}}, NLM_F_REQUEST | NLM_F_DUMP);
  EXPECT_EQ(nl_recvmsgs_default(client.Get()), 0);
}

TEST(VirtualNfcAnswers, ListTheDevicesInTheOrderTheyCame) {
  InProcessVirtualNfc kernel;
  kernel.Plug(3);
  kernel.Plug();
  const NfcClient client;
  const std::vector<Message> dump = client.Dump(NFC_CMD_GET_DEVICE);
  ASSERT_THAT(dump, SizeIs(4));
  EXPECT_EQ(dump[0].header.nlmsg_type, nfctest::kFamily);
  EXPECT_EQ(dump[0].header.nlmsg_flags, NLM_F_MULTI);
  EXPECT_EQ(dump[0].Command(), NFC_CMD_GET_DEVICE);
  EXPECT_THAT(dump[0].Attributes(), ElementsAre(9, 0, 2, 0, 'n', 'f', 'c', '0', 0, 0, 0, 0,  // name
                                                8, 0, 1, 0, 0, 0, 0, 0,                      // index
                                                8, 0, 3, 0, 0xfc, 0, 0, 0,                   // protocols
                                                5, 0, 12, 0, 0, 0, 0, 0,                     // powered
                                                5, 0, 11, 0, 2, 0, 0, 0));                   // RF mode
  EXPECT_EQ(dump[1].Attributes()[7], '3');
  EXPECT_EQ(dump[2].Attributes()[7], '1');
  EXPECT_EQ(dump[3].header.nlmsg_type, NLMSG_DONE);

  // The devices come in one datagram and the end in another.
  client.Send(NFC_CMD_GET_DEVICE, {}, NLM_F_REQUEST | NLM_F_DUMP);
  EXPECT_EQ(client.ReceiveDatagram().size(), 3U * (20 + 44));
  EXPECT_EQ(client.ReceiveDatagram().size(), 20U);
}

// --- the device goes and comes ---

TEST(VirtualNfcDevice, ThatIsDownGoesAtOnceAndComesWithAnEvent) {
  InProcessVirtualNfc kernel;
  const NfcClient client;
  const NfcClient listener;
  listener.JoinEvents();

  ASSERT_TRUE(kernel.Unplug());
  EXPECT_FALSE(kernel.Unplug());
  std::vector<Message> events = listener.Received();
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].Command(), NFC_EVENT_DEVICE_REMOVED);
  EXPECT_EQ(events[0].header.nlmsg_seq, 0U);
  EXPECT_EQ(events[0].header.nlmsg_pid, 0U);
  EXPECT_EQ(events[0].header.nlmsg_flags, 0);
  EXPECT_EQ(events[0].payload[1], 1);
  EXPECT_THAT(events[0].Attributes(), ElementsAre(8, 0, 1, 0, 0, 0, 0, 0));
  EXPECT_EQ(client.Command(NFC_CMD_DEV_UP), ENODEV);
  EXPECT_THAT(client.Dump(NFC_CMD_GET_DEVICE), SizeIs(1));

  kernel.Plug(0);
  events = listener.Received();
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_EQ(events[0].Command(), NFC_EVENT_DEVICE_ADDED);
  EXPECT_THAT(events[0].Attributes(), SizeIs(44));
  EXPECT_EQ(client.Command(NFC_CMD_START_POLL), ENODEV);
  EXPECT_EQ(client.Command(NFC_CMD_DEV_UP), 0);
}

TEST(VirtualNfcDevice, ThatPolledStaysListedForAWhileAfterItHasGoneOnlyWithNci) {
  {
    InProcessVirtualNfc kernel;
    const NfcClient owner;
    ASSERT_TRUE(owner.Poll());
    ASSERT_TRUE(kernel.Unplug());
    EXPECT_THAT(owner.Dump(NFC_CMD_GET_DEVICE), SizeIs(1));
    EXPECT_EQ(owner.Command(NFC_CMD_STOP_POLL), ENODEV);
    EXPECT_EQ(owner.Dump(NFC_CMD_GET_TARGET, 0).at(0).Error(), ENODEV);
  }
  VirtualNfcSettings settings;
  settings.kernel.stack = Stack::Nci;
  settings.removedListing = std::chrono::milliseconds(1);
  {
    InProcessVirtualNfc kernel(settings);
    const NfcClient owner;
    ASSERT_TRUE(owner.Poll());
    ASSERT_TRUE(kernel.Unplug());
    EXPECT_TRUE(kernel.WaitFor([](const Status& status) { return status.devices.empty(); }));
    EXPECT_EQ(owner.Dump(NFC_CMD_GET_TARGET, 0).at(0).Error(), ENODEV);
  }
  settings.removedListing = std::chrono::hours(1);
  InProcessVirtualNfc kernel(settings);
  const NfcClient owner;
  const NfcClient other;
  ASSERT_TRUE(owner.Poll());
  ASSERT_TRUE(kernel.Unplug());

  const std::vector<Message> listed = other.Dump(NFC_CMD_GET_DEVICE);
  EXPECT_EQ(owner.Command(NFC_CMD_DEV_UP), ENODEV);
  EXPECT_EQ(owner.Command(NFC_CMD_DEV_DOWN), ENODEV);
  EXPECT_EQ(owner.Command(NFC_CMD_START_POLL), ENODEV);
  EXPECT_EQ(owner.Command(NFC_CMD_STOP_POLL), ENODEV);
  EXPECT_EQ(other.Dump(NFC_CMD_GET_TARGET, 0).at(0).Error(), 0);
  // Its number is taken meanwhile.
  EXPECT_EQ(kernel.Plug(), 1U);
  ASSERT_THAT(listed, SizeIs(2));
  EXPECT_EQ(listed[0].Attributes()[32], 1) << "still powered";
}

TEST(VirtualNfcDevice, KeepsItsPowerWhenTheSocketThatGaveItIsClosed) {
  const InProcessVirtualNfc kernel;
  const NfcClient second;
  {
    const NfcClient first;
    ASSERT_EQ(first.Command(NFC_CMD_DEV_UP), 0);
  }
  EXPECT_EQ(second.Command(NFC_CMD_DEV_UP), EALREADY);
}

TEST(VirtualNfcDevice, WithAnActiveTargetIsBusy) {
  InProcessVirtualNfc kernel;
  const NfcClient client;
  ASSERT_EQ(client.Command(NFC_CMD_DEV_UP), 0);
  kernel.SetFault(Fault::TargetActive);
  EXPECT_EQ(client.Command(NFC_CMD_START_POLL), EBUSY);
  EXPECT_EQ(client.Command(NFC_CMD_DEV_DOWN), EBUSY);
  EXPECT_EQ(client.Dump(NFC_CMD_GET_DEVICE).at(0).Attributes()[40], 0) << "initiator";
  kernel.SetFault(Fault::TargetActive, false);
  EXPECT_EQ(client.Command(NFC_CMD_START_POLL), 0);
}

}  // namespace
