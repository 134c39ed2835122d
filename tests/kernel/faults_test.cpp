// What goes wrong below the kernel: whatever it is, a card is read or the supervisor is told.
#include "tests/kernel/kerneltest.h"

namespace {

struct Fault {
  std::string name;
  EStack stack;
  /// What happens to an enabled station: commands for the reader, and "card" for one that is read meanwhile,
  /// "enable", "disable".
  std::vector<std::string> happens;
  std::string outcome;      ///< one or several of "read", "recovered" and "fatal", as in "recovered|fatal"
  std::string repair = {};  ///< before the daemon is started again
};

void PrintTo(const Fault& fault, std::ostream* stream) {
  *stream << fault.name;
}

class Faults : public KernelTest, public ::testing::WithParamInterface<Fault> {
 protected:
  Faults() : KernelTest(GetParam().stack) {}

  void Happens(const std::string& what) {
    if (what == "card") {
      ExpectCardIsRead();
    } else if (what == "enable") {
      Enable();
    } else if (what == "disable") {
      Disable();
    } else {
      Reader(what);
    }
  }
};

std::string FaultName(const ::testing::TestParamInfo<Fault>& info) {
  return ::testing::PrintToString(info.param.stack) + info.param.name;
}

constexpr auto D = EStack::Digital;
constexpr auto N = EStack::Nci;

const std::vector<Fault> cFaults{
    // One transfer to the reader fails: the kernel stops polling without a word.
    {"OneFrameFails", D, {"fail send 5"}, "read"},
    {"OneFrameFailsWhileACardIsThere", D, {"put a2 04A1B2C3", "wait polling", "fail send 5"}, "read"},
    // It polls on.
    {"ConfiguringFailsForAWhile", D, {"fail configure 5 1500"}, "read"},
    {"SwitchingTheFieldFails", D, {"fail switch 5 3"}, "read"},
    {"SwitchingTheFieldFailsWhenEnabled", D, {"disable", "fail switch 5", "enable"}, "read"},
    {"SwitchingTheFieldFailsWhenDisabled", D, {"fail switch 5", "disable", "enable"}, "read"},
    {"FramesCollide", D, {"fail answer 5 20"}, "read"},
    {"FramesAreCancelled", D, {"fail answer 125 20"}, "read"},
    {"NothingAnswersForAWhile", D, {"fail answer 110 100"}, "read"},
    // The reader goes.
    {"Unplugged", D, {"unplug"}, "fatal", "plug"},
    {"UnpluggedAndPluggedIn", D, {"unplug", "plug"}, "fatal|recovered"},
    {"UnpluggedWhenDisabled", D, {"disable", "unplug", "plug", "enable"}, "read"},
    {"Unplugged", N, {"unplug"}, "fatal", "plug"},
    {"UnpluggedAndPluggedIn", N, {"unplug", "plug"}, "fatal|recovered"},
    // The kernel stops polling without a word.
    {"TagWithAProtocolOfTheChipsOwn", N, {"put ax 5A3C91F0", "wait active", "take"}, "read"},
    {"TagThatWasNotAskedFor", N, {"put a1 01020304", "wait active", "take"}, "read"},
    {"ChipResets", N, {"reset"}, "read"},
    {"ChipSaysThatItPollsAlready", N, {"fail discover a0", "card"}, "read"},
    // Polling is not begun again after a card.
    {"RestartRejected", N, {"fail discover 01", "card"}, "recovered"},
    {"RestartFailed", N, {"fail discover 03", "card"}, "recovered"},
    {"RestartNotInitialized", N, {"fail discover 04", "card"}, "recovered"},
    {"RestartSyntaxError", N, {"fail discover 05", "card"}, "recovered"},
    {"RestartSemanticError", N, {"fail discover 06", "card"}, "recovered"},
    {"RestartInvalidParameter", N, {"fail discover 09", "card"}, "recovered"},
    {"RestartActivationFailed", N, {"fail discover a1", "card"}, "recovered"},
    {"RestartTimedOut", N, {"fail discover b2", "card"}, "recovered"},
    {"RestartWithoutAnswer", N, {"fail discover silent", "card"}, "recovered"},
    {"CardIsNotLeft", N, {"fail deactivate 03", "card"}, "recovered"},
    {"CardIsNotLeftWithoutAnswer", N, {"fail deactivate silent", "card"}, "recovered"},
    {"CardIsNotLeftWithoutWord", N, {"fail deactntf silent", "card"}, "recovered"},
    // The chip fails when the reader is switched on.
    {"ResetRefused", N, {"disable", "fail reset 03", "enable"}, "fatal"},
    {"ResetWithoutAnswer", N, {"disable", "fail reset silent", "enable"}, "fatal"},
    {"InitRefused", N, {"disable", "fail init 03", "enable"}, "fatal"},
    {"InitWithoutAnswer", N, {"disable", "fail init silent", "enable"}, "fatal"},
    {"MapRefused", N, {"disable", "fail map 03", "enable"}, "fatal"},
    {"MapWithoutAnswer", N, {"disable", "fail map silent", "enable"}, "fatal"},
    {"ConfigurationRefused", N, {"disable", "fail setconfig 03", "enable"}, "fatal"},
    {"ConfigurationWithoutAnswer", N, {"disable", "fail setconfig silent", "enable"}, "fatal"},
    {"StartRefused", N, {"disable", "fail discover 03", "enable"}, "fatal"},
    {"StartWithoutAnswer", N, {"disable", "fail discover silent", "enable"}, "fatal"},
    // ... or off.
    {"StopRefused", N, {"fail deactivate 03", "disable", "enable"}, "read"},
    {"StopWithoutAnswer", N, {"fail deactivate silent", "disable", "enable"}, "read"},
};

}  // namespace

TEST_P(Faults, ACardIsReadOrTheSupervisorIsTold) {
  const auto& fault = GetParam();
  StartEnabled();
  for (const auto& what : fault.happens) {
    Happens(what);
  }
  const auto outcome = Outcome();
  EXPECT_NE(("|" + fault.outcome + "|").find("|" + outcome + "|"), std::string::npos)
      << outcome << " instead of " << fault.outcome;
  if (!fault.repair.empty()) {
    Reader(fault.repair);
  }
  ExpectCured(outcome);
}

INSTANTIATE_TEST_SUITE_P(Kernel, Faults, ::testing::ValuesIn(cFaults), FaultName);
