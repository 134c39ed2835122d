// The simulated reader: several tags at once, and faults without an event or an error.

#include <gtest/gtest.h>

#include "tests/virtualnfc/nfcclient.h"
#include "tools/virtual-nfc/preload/inprocess.h"

namespace {

using namespace std::chrono_literals;
using nfctest::NfcClient;
using virtualnfc::Fault;
using virtualnfc::InProcessVirtualNfc;
using virtualnfc::MakeTag;
using virtualnfc::Stack;
using virtualnfc::Tag;
using virtualnfc::TagKind;

class Reader {
 public:
  explicit Reader(Stack stack) : mKernel({.kernel = {.stack = stack}, .detectionDelay = 0ms}) {}

  /// Tags found so far. The server looks for tags before it answers the command.
  std::uint32_t Found() const {
    (void)mClient.Command(NFC_CMD_GET_DEVICE);
    return mKernel.GetStatus().Device().targetsFound;
  }

  InProcessVirtualNfc mKernel;
  const NfcClient mClient;
};

TEST(VirtualNfcTags, DigitalFindsOneThatIsAloneInItsTechnology) {
  const Tag first = MakeTag(TagKind::Mifare, "01020304");
  const Tag second = MakeTag(TagKind::Iso14443A, "11223344");
  const Tag other = MakeTag(TagKind::Iso15693, "E004010203040506");
  for (const Stack stack : {Stack::Digital, Stack::Nci}) {
    Reader reader(stack);
    ASSERT_TRUE(reader.mClient.Poll());
    reader.mKernel.PresentTags({first, second, other});
    (void)reader.Found();
    const auto targets = reader.mClient.Dump(NFC_CMD_GET_TARGET, 0).size() - 1;
    EXPECT_EQ(targets, stack == Stack::Digital ? 1U : 3U);
  }
}

struct FaultStep {
  /// An NFC command, or a command of this file.
  int what;
  /// The errno of the answer, the number of tags found so far, or the fault.
  int value;
};

constexpr int kUp = NFC_CMD_DEV_UP;
constexpr int kDown = NFC_CMD_DEV_DOWN;
constexpr int kStart = NFC_CMD_START_POLL;
constexpr int kStop = NFC_CMD_STOP_POLL;
constexpr int kFault = -1;
/// A tag is presented.
constexpr int kFound = -2;

struct FaultStory {
  const char* name;
  std::vector<FaultStep> steps;
  const char* rule = nullptr;
};

constexpr int Of(Fault fault) {
  return static_cast<int>(fault);
}

const FaultStory kStories[] = {
    {"ThePollIsDeadFromTheStart",
     {{kUp, 0}, {kStart, 0}, {kFound, 0}, {kStop, 0}, {kStart, 0}, {kFound, 1}},
     "START_POLL fault=poll-dead times=1"},
    {"OutOfStepUntilPoweredDown",
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
    {"StartPollAnswersAlreadyAndNobodyPolls",
     {{kUp, 0}, {kStart, EALREADY}, {kStop, EINVAL}, {kFound, 0}, {kStart, 0}, {kFound, 1}},
     "START_POLL errno=EALREADY times=1"},
    {"ARunawayPollSwallowsTheNextTag",
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
    {"AFindThatLeavesTheChipOutOfStep",
     {{kUp, 0}, {kStart, 0}, {kFound, 1}, {kStart, EBUSY}, {kDown, 0}, {kUp, 0}, {kStart, 0}},
     "TARGETS_FOUND fault=out-of-step times=1"},
    {"AFindWhoseEventIsLost",
     {{kUp, 0}, {kStart, 0}, {kFound, 1}, {kStop, EINVAL}, {kStart, 0}},
     "TARGETS_FOUND drop"},
};

TEST(VirtualNfcFaults, BeginAndEndAsInTheKernel) {
  for (const FaultStory& story : kStories) {
    SCOPED_TRACE(story.name);
    Reader reader(Stack::Digital);
    if (story.rule != nullptr) {
      reader.mKernel.AddRule(story.rule);
    }
    int number = 0;
    for (const auto& [what, value] : story.steps) {
      SCOPED_TRACE("step " + std::to_string(++number));
      if (what == kFault) {
        EXPECT_TRUE(reader.mKernel.SetFault(static_cast<Fault>(value)));
      } else if (what == kFound) {
        reader.mKernel.PresentTag(MakeTag(TagKind::Mifare, "01020304"));
        EXPECT_EQ(reader.Found(), static_cast<std::uint32_t>(value));
        reader.mKernel.RemoveTags();
      } else {
        EXPECT_EQ(reader.mClient.Command(static_cast<std::uint8_t>(what)), value);
      }
    }
  }
}

}  // namespace
