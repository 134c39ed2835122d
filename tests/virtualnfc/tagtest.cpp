// Tags in front of the reader, and what a program hears of them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>

#include "inprocess.h"
#include "nfcclient.h"

namespace {

using nfctest::Message;
using nfctest::NfcClient;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;
using virtualnfc::Bytes;
using virtualnfc::InProcessVirtualNfc;
using virtualnfc::MakeRawTag;
using virtualnfc::MakeTag;
using virtualnfc::Status;
using virtualnfc::Tag;
using virtualnfc::TagKind;
using virtualnfc::VirtualNfcSettings;

/// A polling program and one that listens.
class VirtualNfcTags : public testing::Test {
 protected:
  VirtualNfcTags() {
    mListener.JoinEvents();
    EXPECT_TRUE(mClient.Poll());
  }

  /// The next event, waited for.
  Message NextEvent() const {
    EXPECT_TRUE(mListener.WaitReadable());
    const std::vector<Message> events = mListener.Received();
    EXPECT_THAT(events, SizeIs(1));
    return events.empty() ? Message{} : events.front();
  }

  std::vector<Message> Targets() const {
    std::vector<Message> targets = mClient.Dump(NFC_CMD_GET_TARGET, 0);
    EXPECT_EQ(targets.back().header.nlmsg_type, NLMSG_DONE);
    targets.pop_back();
    return targets;
  }

  InProcessVirtualNfc mKernel;
  const NfcClient mClient;
  const NfcClient mListener;
};

TEST_F(VirtualNfcTags, AreFoundAgainByEachPollWhileTheyLieThere) {
  mKernel.PresentTag(MakeTag(TagKind::Mifare, "04A12B5C"));
  for (std::uint8_t round = 0; round < 3; ++round) {
    const Message event = NextEvent();
    EXPECT_EQ(event.Command(), NFC_EVENT_TARGETS_FOUND);
    EXPECT_THAT(event.Attributes(), ElementsAre(8, 0, 1, 0, 0, 0, 0, 0));
    EXPECT_THAT(Targets().at(0).Attributes(), ElementsAre(8, 0, 4, 0, round, 0, 0, 0,  // counted over polls
                                                          8, 0, 3, 0, 4, 0, 0, 0,      // protocols
                                                          6, 0, 5, 0, 4, 0, 0, 0,      // SENS_RES
                                                          5, 0, 6, 0, 0, 0, 0, 0,      // SEL_RES
                                                          8, 0, 7, 0, 0x04, 0xA1, 0x2B, 0x5C));
    // Nobody polls after a find, until somebody starts it again; any socket may.
    EXPECT_EQ(mClient.Command(NFC_CMD_STOP_POLL), EINVAL);
    EXPECT_EQ((round == 0 ? mListener : mClient).Command(NFC_CMD_START_POLL), 0);
  }
}

TEST_F(VirtualNfcTags, OfTheLastFindAreReportedLongAfterTheyHaveGone) {
  mKernel.PresentTag(MakeTag(TagKind::Mifare, "04A12B5C"));
  NextEvent();
  mKernel.RemoveTags();
  for (const std::uint8_t command :
       {NFC_CMD_START_POLL, NFC_CMD_STOP_POLL, NFC_CMD_DEV_DOWN, NFC_CMD_DEV_UP, NFC_CMD_START_POLL}) {
    EXPECT_EQ(mClient.Command(command), 0);
    EXPECT_THAT(Targets(), SizeIs(1));
  }
  mKernel.PresentTag(MakeTag(TagKind::Iso14443A, "04010203040506"));
  NextEvent();
  const std::vector<Message> targets = Targets();
  ASSERT_THAT(targets, SizeIs(1));
  EXPECT_EQ(targets[0].Attributes()[4], 1);
}

TEST_F(VirtualNfcTags, ComeInOneEventWhenThereAreSeveral) {
  std::vector<Tag> tags;
  for (int i = 10; i < 22; ++i) {
    tags.push_back(MakeTag(TagKind::Mifare, "0400" + std::to_string(i) + "00"));
  }
  tags.push_back(MakeRawTag(0, {}));
  mKernel.PresentTags(tags);
  NextEvent();
  EXPECT_THAT(Targets(), SizeIs(10));
  EXPECT_EQ(mKernel.GetStatus().Events(NFC_EVENT_TARGETS_FOUND), 1U);

  mKernel.PresentTags({MakeRawTag(0, {}), MakeRawTag(0, {})});
  EXPECT_EQ(mClient.Command(NFC_CMD_START_POLL), 0);
  NextEvent();
  EXPECT_THAT(Targets(), IsEmpty());
}

TEST_F(VirtualNfcTags, OfAnUnknownKindKillThePollUntilItIsStopped) {
  mKernel.PresentTag(MakeRawTag(0, {}));
  ASSERT_TRUE(mKernel.WaitFor([](const Status& status) { return status.Device().pollDead; }));
  mKernel.PresentTag(MakeTag(TagKind::Mifare, "04A12B5C"));
  EXPECT_EQ(mClient.Command(NFC_CMD_START_POLL), EBUSY);
  EXPECT_EQ(mClient.Command(NFC_CMD_STOP_POLL), 0);
  EXPECT_EQ(mKernel.GetStatus().Events(NFC_EVENT_TARGETS_FOUND), 0U);
  EXPECT_EQ(mClient.Command(NFC_CMD_START_POLL), 0);
  EXPECT_EQ(NextEvent().Command(), NFC_EVENT_TARGETS_FOUND);
}

TEST_F(VirtualNfcTags, OfATechnologyThatIsNotPolledAreNotSeen) {
  EXPECT_EQ(mClient.Command(NFC_CMD_STOP_POLL), 0);
  mClient.Send(NFC_CMD_START_POLL,
               {{NFC_ATTR_DEVICE_INDEX, 0}, {NFC_ATTR_PROTOCOLS, NFC_PROTO_ISO15693_MASK}});
  EXPECT_EQ(mClient.LastError(), 0);
  mKernel.PresentTags({MakeTag(TagKind::Mifare, "04A12B5C"), MakeTag(TagKind::Iso15693, "E007060504030201")});
  NextEvent();
  EXPECT_THAT(Targets(), SizeIs(1));
  EXPECT_EQ(mKernel.GetStatus().Device().targetsFound, 1U);
}

TEST_F(VirtualNfcTags, ThatAreHeldForATimeGoByThemselves) {
  mKernel.PresentTagFor(MakeTag(TagKind::Mifare, "04A12B5C"), std::chrono::milliseconds(60));
  NextEvent();
  EXPECT_TRUE(mKernel.WaitFor([](const Status& status) { return status.tags.empty(); }));
}

TEST_F(VirtualNfcTags, AreFoundAfterTheOwnerClosedOnlyByANewPoll) {
  NfcClient owner;
  EXPECT_EQ(mClient.Command(NFC_CMD_STOP_POLL), 0);
  ASSERT_TRUE(owner.Poll());
  owner.Close();
  ASSERT_TRUE(mKernel.WaitFor([](const Status& status) { return !status.Device().polling; }));
  EXPECT_TRUE(mKernel.GetStatus().Device().powered);
  mKernel.PresentTag(MakeTag(TagKind::Mifare, "04A12B5C"));
  EXPECT_EQ(mClient.Command(NFC_CMD_STOP_POLL), EINVAL);
  EXPECT_EQ(mClient.Command(NFC_CMD_START_POLL), 0);
  NextEvent();
  // A find ends the ownership, so that the owner's close changes nothing.
  EXPECT_EQ(mKernel.GetStatus().Device().ownerPort, 0U);
}

struct KindCase {
  const char* name;
  TagKind kind;
  const char* uid;
  /// Protocols, SENS_RES, SEL_RES and what identifies the tag.
  std::vector<int> attributes;
};

void PrintTo(const KindCase& one, std::ostream* out) {
  *out << one.name;
}

class VirtualNfcTagKinds : public testing::TestWithParam<KindCase> {};

TEST_P(VirtualNfcTagKinds, AreReportedWithTheirOwnAttributes) {
  VirtualNfcSettings settings;
  settings.detectionDelay = std::chrono::milliseconds(0);
  InProcessVirtualNfc kernel(settings);
  const NfcClient client;
  client.JoinEvents();
  ASSERT_TRUE(client.Poll());
  kernel.PresentTag(MakeTag(GetParam().kind, GetParam().uid));
  ASSERT_TRUE(client.WaitReadable());
  EXPECT_THAT(client.Received(), SizeIs(1));
  Bytes attributes = client.Dump(NFC_CMD_GET_TARGET, 0).at(0).Attributes();
  attributes.erase(attributes.begin(), attributes.begin() + 8);
  EXPECT_THAT(attributes, ElementsAreArray(GetParam().attributes));
}

INSTANTIATE_TEST_SUITE_P(
    Facts, VirtualNfcTagKinds,
    testing::Values(
        KindCase{"MifareWithSevenBytes",
                 TagKind::Mifare,
                 "04:01:02:03:04:05:06",
                 {8, 0, 3, 0, 0x04, 0, 0,  0, 6, 0, 5, 0, 0x44, 0, 0, 0, 5, 0,
                  6, 0, 0, 0, 0,    0, 11, 0, 7, 0, 4, 1, 2,    3, 4, 5, 6, 0}},
        KindCase{"MifareWithoutNumber", TagKind::Mifare, "", {8, 0, 3, 0, 0x04, 0, 0, 0, 6, 0, 5, 0,
                                                              4, 0, 0, 0, 5,    0, 6, 0, 0, 0, 0, 0}},
        KindCase{"Iso14443A", TagKind::Iso14443A, "0a0b0c0d", {8, 0, 3, 0, 0x10, 0, 0,  0,  6,  0,    5,
                                                               0, 4, 0, 0, 0,    5, 0,  6,  0,  0x20, 0,
                                                               0, 0, 8, 0, 7,    0, 10, 11, 12, 13}},
        KindCase{
            "NfcDep", TagKind::NfcDep, "0a0b0c0d", {8, 0, 3, 0, 0x20, 0, 0, 0, 6, 0, 5, 0, 4,  0,  0,  0,
                                                    5, 0, 6, 0, 0x40, 0, 0, 0, 8, 0, 7, 0, 10, 11, 12, 13}},
        KindCase{"Iso14443B",
                 TagKind::Iso14443B,
                 "0102030405060708090A0B",
                 {8, 0, 3, 0, 0x40, 0, 0, 0, 6, 0, 5, 0, 0, 0, 0, 0, 5, 0,  6,  0,
                  0, 0, 0, 0, 15,   0, 8, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 0}},
        KindCase{"Felica",
                 TagKind::Felica,
                 "01020304050607080910111213141516",
                 {8, 0, 3,  0, 0x08, 0, 0, 0, 6, 0, 5, 0, 0, 0, 0, 0,  5,  0,  6,  0,  0,  0,
                  0, 0, 20, 0, 9,    0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 16, 17, 18, 19, 20, 21, 22}},
        KindCase{"Iso15693",
                 TagKind::Iso15693,
                 "E007060504030201",
                 {8, 0, 3, 0, 0x80, 0, 0, 0, 6, 0, 5,  0, 0,  0, 0, 0, 5, 0, 6, 0, 0, 0,
                  0, 0, 5, 0, 26,   0, 0, 0, 0, 0, 12, 0, 27, 0, 1, 2, 3, 4, 5, 6, 7, 0xE0}}),
    [](const auto& one) { return one.param.name; });

TEST(VirtualNfcTag, WithANumberThatItsKindCannotHaveIsRefused) {
  for (const char* uid : {"04A12B5", "04A12B", "0xA12B5C", "0:4A12B5C"}) {
    EXPECT_THROW(MakeTag(TagKind::Mifare, uid), std::invalid_argument) << uid;
  }
  EXPECT_THROW(MakeTag(TagKind::Iso15693, "E00706050403"), std::invalid_argument);
  EXPECT_THROW(MakeTag(TagKind::Felica, "01020304"), std::invalid_argument);
  EXPECT_THROW(virtualnfc::ParseTagKind("magstripe"), std::invalid_argument);
}

}  // namespace
