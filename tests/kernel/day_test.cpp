// Ordinary days of the station: all kinds of cards, many cards, several at once, and cards that stay.
#include <linux/nfc.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "tools/kernelbed/kerneltest.h"

using namespace std::chrono_literals;
using ::testing::Each;
using ::testing::SizeIs;

namespace {

using Day = OnBothStacks;

/// The daemon runs as another user, as it is deployed.
class WithOneCapability : public KernelTest, public ::testing::WithParamInterface<Stack> {
 protected:
  static constexpr uid_t kNobody = 65534;

  WithOneCapability()
      : KernelTest(GetParam(), {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                "--inh-caps=-all,+net_admin", "--ambient-caps=-all,+net_admin",
                                "--bounding-set=-all,+net_admin"}) {}
};

}  // namespace

TEST_P(Day, EveryKindOfCard) {
  StartEnabled();
  struct Case {
    const char* tag;
    const char* token;
  };
  for (const auto& c :
       {Case{"b 11223344", " ERfidUidInvalid"}, Case{"a2 04A1B2C3", "04A1B2C3 ERfidUidNotInList"},
        Case{"a2 04112233445566", "04112233445566 ERfidUidNotInList"},
        Case{"a4 08A1B2C3", "08A1B2C3 ERfidUidNotInList"},
        Case{"a4 04778899AABBCC", "04778899AABBCC ERfidUidNotInList"},
        Case{"a2 5A3C91F0 sak=08", "5A3C91F0 ERfidUidNotInList"},
        Case{"a4 5A3C91F2 sak=28", "5A3C91F2 ERfidUidNotInList"},
        Case{"v E007060504030201", "E007060504030201 ERfidUidNotInList"}}) {
    SCOPED_TRACE(c.tag);
    Reader(std::string("put ") + c.tag);
    EXPECT_TRUE(Notifies(std::string("token ") + c.token));
    Reader("take");
  }
  Disable();  // The daemon forgets the first card; like the next one, it has no UID.
  Enable();
  Reader("put f 0102030405060708");
  EXPECT_TRUE(Notifies("token  ERfidUidInvalid"));
}

TEST_P(Day, TwoHundredCardsInARow) {
  StartEnabled();
  for (int card = 0; card < 200; ++card) {
    const auto uid = NewUid();
    Reader("swap a2 " + uid);
    ASSERT_TRUE(IsNotified(uid));
  }
  EXPECT_THAT(mSupervisor->Notified(), SizeIs(200));
}

TEST_P(Day, ACardThatStaysIsNotifiedOnce) {
  // The daemon forgets a card 2 s after the last sighting. The digital stack polls the technologies in random
  // order, so it sometimes takes longer to see the card again; then the daemon rightly reports it again.
  StartEnabled();
  const auto client = Client();
  client.JoinEvents();
  Reader("put a2 04A1B2C3");
  EXPECT_TRUE(IsNotified("04A1B2C3"));
  const auto end = std::chrono::steady_clock::now() + 60s;
  auto lastFind = std::chrono::steady_clock::now();
  size_t gaps = 0;
  size_t finds = 0;
  while (std::chrono::steady_clock::now() < end) {
    ASSERT_TRUE(client.WaitReadable());
    finds += client.Received().size();
    const auto now = std::chrono::steady_clock::now();
    gaps += now - lastFind > 1900ms ? 1 : 0;
    lastFind = now;
  }
  EXPECT_GT(finds, 20U);
  EXPECT_LE(mSupervisor->Notified().size(), 1 + gaps);
  EXPECT_THAT(mSupervisor->Notified(), Each("token 04A1B2C3 ERfidUidNotInList"));
}

TEST_P(Day, ACardThatStaysIsReadAgainAfterEnable) {
  StartEnabled();
  Reader("put a2 04A1B2C3");
  for (int cycle = 0; cycle < 20; ++cycle) {
    ASSERT_TRUE(IsNotified("04A1B2C3")) << cycle;
    Disable();
    EXPECT_EQ(IsPowered(), false);
    Enable();
  }
  EXPECT_TRUE(IsNotified("04A1B2C3"));
}

TEST_P(Day, SeveralCardsAtOnce) {
  StartEnabled();
  // An NCI chip lists all cards, and the daemon takes the last. The digital stack finds one technology after
  // the other.
  Reader("put a2 04A1B2C3");
  Reader("put v E007060504030201");
  EXPECT_TRUE(IsNotified("E007060504030201"));
  EXPECT_TRUE(mStack == Stack::Nci || IsNotified("04A1B2C3"));
  // The digital stack has no anticollision: it finds neither of two cards of one technology, then the one
  // that stays.
  Reader("swap a2 11223344");
  Reader("put a2 55667788");
  EXPECT_TRUE(mStack == Stack::Digital || IsNotified("55667788"));
  Reader("swap a2 99AABBCC");
  EXPECT_TRUE(IsNotified("99AABBCC"));
}

TEST_P(Day, ReadsAfterAKill) {
  for (const bool isCardThere : {false, true}) {
    StartEnabled();
    if (isCardThere) {
      Reader("put a2 04A1B2C3");
      EXPECT_TRUE(IsNotified("04A1B2C3"));
    }
    mDaemon->Signal(SIGKILL);
    EXPECT_EQ(mDaemon->Wait(), "signal 9");
    EXPECT_EQ(IsPowered(), true);
  }
  StartEnabled();
  EXPECT_TRUE(IsNotified("04A1B2C3"));
  Reader("take");
  ExpectCardIsRead();
}

TEST_P(Day, FailsWithoutAReaderAndReadsOncePluggedIn) {
  Reader("unplug");
  StartDaemon();
  EXPECT_EQ(mSupervisor->Disable(), "Ok");
  EXPECT_TRUE(Notifies("Disabled"));
  Enable();
  EXPECT_TRUE(Notifies("FatalError"));
  Reader("plug");
  ExpectCured("fatal");
}

TEST_P(Day, FailsWhileAnotherProgramPollsAndReadsAfterwards) {
  auto other = Client();
  EXPECT_TRUE(other.Poll());
  StartDaemon();
  EXPECT_EQ(mSupervisor->Disable(), "Ok");
  EXPECT_TRUE(Notifies("Disabled"));
  Enable();
  EXPECT_TRUE(Notifies("Error"));
  const auto outcome = Outcome();
  other.Close();
  ExpectCured(outcome);
}

TEST_P(WithOneCapability, IsEnoughForTheDaemon) {
  for (const auto& entry : std::filesystem::recursive_directory_iterator(Folder())) {
    ASSERT_EQ(chown(entry.path().c_str(), kNobody, kNobody), 0) << entry.path();
  }
  ASSERT_EQ(chown(Folder().c_str(), kNobody, kNobody), 0);
  StartEnabled();
  ExpectCardIsRead();
  Disable();
  EXPECT_EQ(IsPowered(), false);
}

INSTANTIATE_TEST_SUITE_P(Kernel, Day, ::testing::Values(Stack::Digital, Stack::Nci), StackName);
INSTANTIATE_TEST_SUITE_P(Kernel, WithOneCapability, ::testing::Values(Stack::Digital, Stack::Nci), StackName);
