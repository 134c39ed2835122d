// The reader and its tags, of both stacks: what is found and how it is reported, and what goes wrong without
// a word.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>

#include "inprocess.h"
#include "nfcclient.h"

namespace {

using namespace std::chrono_literals;
using nfctest::Message;
using nfctest::NfcClient;
using testing::IsEmpty;
using testing::SizeIs;
using virtualnfc::Bytes;
using virtualnfc::Fault;
using virtualnfc::InProcessVirtualNfc;
using virtualnfc::MakeTag;
using virtualnfc::ParseHex;
using virtualnfc::Stack;
using virtualnfc::Tag;
using virtualnfc::TagKind;

class Reader {
 public:
  explicit Reader(Stack stack)
      : mKernel({.kernel = {.stack = stack}, .detectionDelay = 0ms}), mStack(stack) {}

  /// What was found by now. The server looks at its tags before it answers.
  std::uint32_t Found() const {
    (void)mClient.Command(NFC_CMD_GET_DEVICE);
    return mKernel.GetStatus().Device().targetsFound;
  }
  /// What the reader reports of tags held to it: the bytes of each target but its index.
  std::vector<Bytes> Report(std::vector<Tag> tags) {
    EXPECT_TRUE(mClient.Poll());
    mKernel.PresentTags(std::move(tags));
    (void)Found();
    std::vector<Bytes> targets;
    for (const Message& message : mClient.Dump(NFC_CMD_GET_TARGET, 0)) {
      if (message.header.nlmsg_type == nfctest::kFamily) {
        const Bytes attributes = message.Attributes();
        targets.emplace_back(attributes.begin() + 8, attributes.end());
      }
    }
    return targets;
  }

  InProcessVirtualNfc mKernel;
  const NfcClient mClient;
  const Stack mStack;
};

// --- tags ---

TEST(VirtualNfcTags, AreReportedAsEachStackReportsThem) {
  const std::string b = "08000300:40000000:06000500:00000000:05000600:00000000";
  const std::string f = "08000300:08000000:06000500:00000000:05000600:00000000";
  const std::string v = "08000300:80000000:06000500:00000000:05000600:00000000:05001A00:00000000";
  const struct {
    Stack stack;
    TagKind kind;
    const char* uid;
    std::string report;
  } kinds[] = {
      {Stack::Digital, TagKind::Mifare, "04112233445566",
       "08000300:04000000:06000500:44000000:05000600:00000000:0B000700:0411223344556600"},
      {Stack::Digital, TagKind::NfcDep, "01020304",
       "08000300:20000000:06000500:04000000:05000600:40000000:08000700:01020304"},
      {Stack::Digital, TagKind::Iso14443B, "01020304", b},
      {Stack::Nci, TagKind::Iso14443B, "01020304", b + ":0F000800:010203040000000080807100"},
      {Stack::Digital, TagKind::Felica, "0102030405060708",
       f + ":15000900:01010203040506070801202204 27674EFF000000"},
      {Stack::Nci, TagKind::Felica, "0102030405060708",
       f + ":16000900:0102030405060708012022042767 4EFF12FC0000"},
      {Stack::Digital, TagKind::Iso15693, "E004010203040506", v + ":0C001B00:06050403020104E0"},
  };
  for (const auto& one : kinds) {
    Reader reader(one.stack);
    const Tag tag = MakeTag(one.kind, one.uid, one.stack);
    SCOPED_TRACE(tag.words);
    std::string hex = one.report;
    std::erase(hex, ' ');
    EXPECT_THAT(reader.Report({tag}), testing::ElementsAre(ParseHex(hex)));
  }
}

TEST(VirtualNfcTags, OfSeveralTheDigitalReaderFindsOneOfATechnologyOfItsOwn) {
  const Tag first = MakeTag(TagKind::Mifare, "01020304");
  const Tag second = MakeTag(TagKind::Iso14443A, "11223344");
  const Tag other = MakeTag(TagKind::Iso15693, "E004010203040506");
  Reader digital(Stack::Digital);
  EXPECT_THAT(digital.Report({first, second}), IsEmpty());
  digital.mKernel.PresentTags({first, second, other});
  EXPECT_EQ(digital.Found(), 1U);
  Reader nci(Stack::Nci);
  EXPECT_THAT(nci.Report({first, second, other}), SizeIs(3));
}

TEST(VirtualNfcTags, ThatTheKernelDoesNotKnowKillThePollWithNciOnly) {
  for (const Stack stack : {Stack::Digital, Stack::Nci}) {
    Reader reader(stack);
    EXPECT_THAT(reader.Report({MakeTag(TagKind::Foreign, "01020304")}), IsEmpty());
    reader.mKernel.PresentTag(MakeTag(TagKind::Mifare, "11223344"));
    EXPECT_EQ(reader.Found(), stack == Stack::Digital ? 1U : 0U);
    EXPECT_EQ(reader.mKernel.GetStatus().Device().Has(Fault::PollDead), stack == Stack::Nci);
  }
}

// --- what goes wrong without a word ---

struct FaultStep {
  /// An NFC command, or one of those below.
  int what;
  /// The errno of its answer; the number of tags found so far; the fault.
  int value;
};

constexpr int kUp = NFC_CMD_DEV_UP;
constexpr int kDown = NFC_CMD_DEV_DOWN;
constexpr int kStart = NFC_CMD_START_POLL;
constexpr int kStop = NFC_CMD_STOP_POLL;
constexpr int kFault = -1;
constexpr int kEnd = -2;
/// A tag lies on the reader from now on.
constexpr int kFound = -3;

struct FaultStory {
  const char* name;
  std::vector<FaultStep> steps;
  const char* rule = nullptr;
};

void PrintTo(const FaultStory& story, std::ostream* out) {
  *out << story.name;
}

class VirtualNfcFaults : public testing::TestWithParam<FaultStory> {};

TEST_P(VirtualNfcFaults, ShowAndEndAsInTheKernel) {
  Reader reader(Stack::Digital);
  if (GetParam().rule != nullptr) reader.mKernel.AddRule(GetParam().rule);
  int number = 0;
  for (const auto& [what, value] : GetParam().steps) {
    SCOPED_TRACE("step " + std::to_string(++number));
    if (what == kFault || what == kEnd) {
      EXPECT_TRUE(reader.mKernel.SetFault(static_cast<Fault>(value), what == kFault));
    } else if (what == kFound) {
      reader.mKernel.PresentTag(MakeTag(TagKind::Mifare, "01020304"));
      EXPECT_EQ(reader.Found(), static_cast<std::uint32_t>(value));
      reader.mKernel.RemoveTags();
    } else {
      EXPECT_EQ(reader.mClient.Command(static_cast<std::uint8_t>(what)), value);
    }
  }
}

constexpr int Of(Fault fault) {
  return static_cast<int>(fault);
}

INSTANTIATE_TEST_SUITE_P(
    Stories, VirtualNfcFaults,
    testing::Values(
        FaultStory{"ADeadPollIsRestarted",
                   {{kUp, 0},
                    {kFault, Of(Fault::PollDead)},
                    {kStart, 0},
                    {kFault, Of(Fault::PollDead)},
                    {kFound, 0},
                    {kStart, EBUSY},
                    {kStop, 0},
                    {kStart, 0},
                    {kFound, 1}}},
        FaultStory{"ThePollIsDeadFromTheStart",
                   {{kUp, 0}, {kStart, 0}, {kFound, 0}, {kStop, 0}, {kStart, 0}, {kFound, 1}},
                   "START_POLL fault=poll-dead times=1"},
        FaultStory{"NothingCuresDeafnessButItsEnd",
                   {{kUp, 0},
                    {kStart, 0},
                    {kFault, Of(Fault::Deaf)},
                    {kFound, 0},
                    {kStart, EBUSY},
                    {kStop, 0},
                    {kDown, 0},
                    {kUp, 0},
                    {kStart, 0},
                    {kFound, 0},
                    {kEnd, Of(Fault::Deaf)},
                    {kFound, 1}}},
        FaultStory{"OutOfStepUntilPoweredDown",
                   {{kUp, 0},
                    {kStart, 0},
                    {kFault, Of(Fault::OutOfStep)},
                    {kFound, 0},
                    {kStart, EBUSY},
                    {kStop, EINVAL},
                    {kDown, 0},
                    {kUp, 0},
                    {kStart, 0},
                    {kFound, 1}}},
        FaultStory{"AChipThatDoesNotStop",
                   {{kUp, 0},
                    {kStart, 0},
                    {kStop, 0},
                    {kStart, EALREADY},
                    {kStop, EINVAL},
                    {kStart, EALREADY},
                    {kFound, 0},
                    {kDown, 0},
                    {kUp, 0},
                    {kStart, 0},
                    {kFound, 1}},
                   "STOP_POLL fault=chip-polls times=1"},
        FaultStory{"StartPollAnswersAlreadyAndNobodyPolls",
                   {{kUp, 0}, {kStart, EALREADY}, {kStop, EINVAL}, {kFound, 0}, {kStart, 0}, {kFound, 1}},
                   "START_POLL errno=EALREADY times=1"},
        FaultStory{"ARunawayPollSwallowsTheNextTag",
                   {{kUp, 0},
                    {kStart, 0},
                    {kFault, Of(Fault::Runaway)},
                    {kStart, EBUSY},
                    {kStop, EINVAL},
                    {kDown, 0},
                    {kUp, 0},
                    {kStart, EBUSY},
                    {kFound, 0},
                    {kStart, 0},
                    {kFound, 1}}},
        FaultStory{"AFindThatLeavesTheChipOutOfStep",
                   {{kUp, 0}, {kStart, 0}, {kFound, 1}, {kStart, EBUSY}, {kDown, 0}, {kUp, 0}, {kStart, 0}},
                   "TARGETS_FOUND fault=out-of-step times=1"},
        FaultStory{"AFindWhoseEventIsLost",
                   {{kUp, 0}, {kStart, 0}, {kFound, 1}, {kStop, EINVAL}, {kStart, 0}},
                   "TARGETS_FOUND drop"}),
    [](const auto& one) { return one.param.name; });

}  // namespace
