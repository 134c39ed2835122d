// An ordinary day of the station.
#include "tests/kernel/kerneltest.h"

namespace {

using Day = OnBothStacks;

}  // namespace

TEST_P(Day, EveryKindOfCardHasItsOutcome) {
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
    EXPECT_TRUE(mSupervisor->WaitFor(std::string("token ") + c.token));
    Reader("take");
  }
  DisableDaemon();  // forgets the cards: neither this one nor the first has a number for the daemon
  EXPECT_EQ(mSupervisor->Enable(), "Ok");
  mSupervisor->Clear();
  Reader("put f 0102030405060708");
  EXPECT_TRUE(mSupervisor->WaitFor("token  ERfidUidInvalid"));
}

INSTANTIATE_TEST_SUITE_P(Kernel, Day, ::testing::Values(EStack::Digital, EStack::Nci), StackName);
