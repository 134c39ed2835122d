// Rules that make the kernel misbehave, and the words that steer a server.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <ostream>

#include "controlprotocol.h"
#include "inprocess.h"
#include "nfcclient.h"

namespace {

using nfctest::Message;
using nfctest::NfcClient;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using virtualnfc::Bytes;
using virtualnfc::HandleControlLine;
using virtualnfc::InProcessVirtualNfc;
using virtualnfc::Status;

struct AnswerRule {
  const char* name;
  const char* rule;
  /// What a dump of two devices, three messages, becomes.
  std::function<void(const std::vector<Message>&)> check;
};

void PrintTo(const AnswerRule& rule, std::ostream* out) {
  *out << rule.rule;
}

class VirtualNfcAnswerRules : public testing::TestWithParam<AnswerRule> {};

TEST_P(VirtualNfcAnswerRules, ChangeTheAnswerOfACommand) {
  InProcessVirtualNfc kernel;
  kernel.Plug();
  const NfcClient client;
  kernel.AddRule(GetParam().rule);
  GetParam().check(client.Dump(NFC_CMD_GET_DEVICE));
  EXPECT_EQ(kernel.ListRules().at(0).fired, 1U);
  kernel.ClearRules();
  EXPECT_THAT(client.Dump(NFC_CMD_GET_DEVICE), SizeIs(3));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, VirtualNfcAnswerRules,
    testing::Values(
        AnswerRule{"Errno", "GET_DEVICE errno=ENODEV",
                   [](const auto& dump) {
                     ASSERT_THAT(dump, SizeIs(1));
                     EXPECT_TRUE(dump[0].IsError());
                     EXPECT_EQ(dump[0].Error(), ENODEV);
                   }},
        AnswerRule{"Drop", "any drop", [](const auto& dump) { EXPECT_THAT(dump, IsEmpty()); }},
        AnswerRule{"Duplicate", "1 duplicate", [](const auto& dump) { EXPECT_THAT(dump, SizeIs(6)); }},
        AnswerRule{"Reverse", "GET_DEVICE reverse",
                   [](const auto& dump) {
                     ASSERT_THAT(dump, SizeIs(3));
                     EXPECT_EQ(dump[0].header.nlmsg_type, NLMSG_DONE);
                     EXPECT_EQ(dump[1].Attributes()[7], '1');
                   }},
        AnswerRule{"NoDone", "GET_DEVICE no-done", [](const auto& dump) { EXPECT_THAT(dump, SizeIs(2)); }},
        AnswerRule{"Sequence", "GET_DEVICE seq=5",
                   [](const auto& dump) {
                     ASSERT_THAT(dump, SizeIs(3));
                     EXPECT_EQ(dump[2].header.nlmsg_seq, 5U);
                   }},
        AnswerRule{"Garble", "GET_DEVICE garble",
                   [](const auto& dump) {
                     ASSERT_THAT(dump, SizeIs(3));
                     EXPECT_EQ(dump[0].Attributes().size(), dump[1].Attributes().size());
                     EXPECT_EQ(dump[0].Attributes()[0], 0xFF ^ 9);
                   }}),
    [](const auto& one) { return one.param.name; });

TEST(VirtualNfcRules, TruncateTheFirstMessageButNotWhatItSaysOfItsLength) {
  InProcessVirtualNfc kernel;
  const NfcClient client;
  kernel.AddRule("GET_DEVICE truncate=30");
  client.Send(NFC_CMD_GET_DEVICE, {}, NLM_F_REQUEST | NLM_F_DUMP);
  const Bytes datagram = client.ReceiveDatagram();
  ASSERT_THAT(datagram, SizeIs(30));
  EXPECT_EQ(datagram[0], 64);
  EXPECT_THAT(client.ReceiveDatagram(), SizeIs(20));
}

TEST(VirtualNfcRules, LetAnAnswerComeFromAnotherProcess) {
  InProcessVirtualNfc kernel;
  const NfcClient client;
  kernel.AddRule("DEV_UP sender=4711");
  client.Send(NFC_CMD_DEV_UP, {{NFC_ATTR_DEVICE_INDEX, 0}});
  sockaddr_nl from{};
  socklen_t length = sizeof(from);
  char answer[64];
  EXPECT_EQ(::recvfrom(client.Fd(), answer, sizeof(answer), 0, reinterpret_cast<sockaddr*>(&from), &length),
            36);
  EXPECT_EQ(from.nl_pid, 4711U);
}

TEST(VirtualNfcRules, FireWhenTheirConditionsHold) {
  InProcessVirtualNfc kernel;
  const NfcClient a;
  const NfcClient b;
  kernel.AddRule("DEV_UP nth=2 errno=1001");
  kernel.AddRule("DEV_UP port=" + std::to_string(b.Port()) + " times=1 errno=1002");
  kernel.AddRule("DEV_UP device=6 errno=1003");
  EXPECT_EQ(b.Command(NFC_CMD_DEV_UP), 1002);
  EXPECT_EQ(a.Command(NFC_CMD_DEV_UP), 1001);
  EXPECT_EQ(a.Command(NFC_CMD_DEV_UP, 6), 1003);
  EXPECT_EQ(b.Command(NFC_CMD_DEV_UP), 0);
  EXPECT_FALSE(kernel.History().empty());
  EXPECT_EQ(kernel.History().front().port, b.Port());
  EXPECT_EQ(kernel.History().front().error, 1002);
}

TEST(VirtualNfcRules, ReachTheFamilyLookUpOfLibnl) {
  InProcessVirtualNfc kernel;
  const NfcClient client;
  kernel.AddRule("GETFAMILY errno=ENOENT times=1");
  EXPECT_EQ(genl_ctrl_resolve(client.Get(), "nfc"), -NLE_OBJ_NOTFOUND);
  EXPECT_EQ(genl_ctrl_resolve(client.Get(), "nfc"), nfctest::kFamily);
}

TEST(VirtualNfcRules, ChangeEvents) {
  InProcessVirtualNfc kernel;
  const NfcClient listener;
  listener.JoinEvents();
  kernel.AddRule("DEVICE_ADDED duplicate nth=1");
  kernel.AddRule("DEVICE_ADDED drop nth=2");
  kernel.Plug();
  EXPECT_THAT(listener.Received(), SizeIs(2));
  kernel.Plug();
  EXPECT_THAT(listener.Received(), IsEmpty());
}

TEST(VirtualNfcRules, TakeTheDeviceAwayUnderACommand) {
  virtualnfc::VirtualNfcSettings settings;
  settings.removedListing = std::chrono::milliseconds(50);
  InProcessVirtualNfc kernel(settings);
  const NfcClient client;
  const NfcClient listener;
  listener.JoinEvents();
  ASSERT_EQ(client.Command(NFC_CMD_DEV_UP), 0);
  kernel.AddRule("START_POLL unplug times=1");
  EXPECT_EQ(client.Command(NFC_CMD_START_POLL), ETIMEDOUT);
  EXPECT_EQ(listener.Received().at(0).Command(), NFC_EVENT_DEVICE_REMOVED);
  EXPECT_EQ(client.Command(NFC_CMD_START_POLL), ENODEV);

  // A list of devices was true when it was made.
  ASSERT_TRUE(kernel.WaitFor([](const Status& status) { return status.devices.empty(); }));
  kernel.Plug(2);
  kernel.AddRule("GET_DEVICE unplug");
  EXPECT_THAT(client.Dump(NFC_CMD_GET_DEVICE), SizeIs(2));
  EXPECT_THAT(client.Dump(NFC_CMD_GET_DEVICE), SizeIs(1));
}

class VirtualNfcWrongWords : public testing::TestWithParam<const char*> {};

TEST_P(VirtualNfcWrongWords, AreRefusedWithAReasonAndChangeNothing) {
  InProcessVirtualNfc kernel;
  const std::string reply = HandleControlLine(kernel, GetParam());
  EXPECT_THAT(reply, StartsWith("error: "));
  EXPECT_THAT(reply, Not(HasSubstr("error: \n")));
  EXPECT_THAT(kernel.ListRules(), IsEmpty());
  EXPECT_EQ(kernel.GetStatus().devices.size(), 1U);
  EXPECT_THAT(kernel.GetStatus().tags, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Lines, VirtualNfcWrongWords,
    testing::Values("", "   ", "dance", "tap", "tap mifare", "tap mifare 04A1", "tap mifare 04A12B5G",
                    "tap stone 04A12B5C", "tap mifare 04A12B5C soon", "tap mifare 04A12B5C 100 200",
                    "remove all", "plug 0", "plug x", "unplug 7", "unplug -1", "status xml", "rule",
                    "rule drop", "rule add", "rule add START_POLL", "rule add START_POLL nth=2",
                    "rule add START_POLL errno=0", "rule add START_POLL errno=EWHAT",
                    "rule add START_POLL errno=99999", "rule add START_POL drop", "rule add 300 drop",
                    "rule add START_POLL explode",
                    "rule add START_POLL delay=", "rule add START_POLL delay=5s",
                    "rule add START_POLL delay=-5", "rule add START_POLL truncate",
                    "rule add TARGETS_FOUND errno=5", "rule add TARGETS_FOUND delay=5", "rule list all"));

TEST(VirtualNfcWords, SteerTheServer) {
  InProcessVirtualNfc kernel;
  const NfcClient client;
  ASSERT_TRUE(client.Poll());
  EXPECT_EQ(HandleControlLine(kernel, "tap iso15693 E007060504030201 60000\n"), "ok\n");
  EXPECT_TRUE(kernel.WaitFor([](const auto& status) { return status.Device().targetsFound == 1; }));
  EXPECT_THAT(HandleControlLine(kernel, "tap mifare 04A12B5C"), HasSubstr("No device is polling"));
  EXPECT_THAT(HandleControlLine(kernel, "status"), HasSubstr("nfc0, power on, not polling, 1 tag(s) found"));
  EXPECT_THAT(HandleControlLine(kernel, "status json"), HasSubstr("\"START_POLL\":1"));
  EXPECT_EQ(HandleControlLine(kernel, "remove"), "ok\n");
  EXPECT_EQ(HandleControlLine(kernel, "rule add  START_POLL  errno=EIO"), "ok\nrule 1\n");
  EXPECT_EQ(client.Command(NFC_CMD_START_POLL), EIO);
  EXPECT_THAT(HandleControlLine(kernel, "rule list"), HasSubstr("(seen 1, fired 1)"));
  EXPECT_EQ(HandleControlLine(kernel, "rule clear"), "ok\n");
  EXPECT_EQ(HandleControlLine(kernel, "unplug"), "ok\n");
  EXPECT_EQ(HandleControlLine(kernel, "plug 4"), "ok\ndevice 4\n");
}

}  // namespace
