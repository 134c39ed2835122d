// What goes wrong below the kernel: whatever it is, a card is read or the supervisor is told.
#include "tools/kernelbed/kerneltest.h"

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

constexpr auto kD = EStack::Digital;
constexpr auto kN = EStack::Nci;

const std::vector<Fault> kFaults{
    // One transfer to the reader fails: the kernel stops polling without a word.
    {"OneFrameFails", kD, {"fail send 5"}, "read"},
    {"OneFrameFailsWhileACardIsThere", kD, {"put a2 04A1B2C3", "wait polling", "fail send 5"}, "read"},
    // It polls on.
    {"ConfiguringFailsForAWhile", kD, {"fail configure 5 1500"}, "read"},
    {"SwitchingTheFieldFails", kD, {"fail switch 5 3"}, "read"},
    {"SwitchingTheFieldFailsWhenEnabled", kD, {"disable", "fail switch 5", "enable"}, "read"},
    {"SwitchingTheFieldFailsWhenDisabled", kD, {"fail switch 5", "disable", "enable"}, "read"},
    {"FramesCollide", kD, {"fail answer 5 20"}, "read"},
    {"FramesAreCancelled", kD, {"fail answer 125 20"}, "read"},
    {"NothingAnswersForAWhile", kD, {"fail answer 110 100"}, "read"},
    // The reader goes.
    {"Unplugged", kD, {"unplug"}, "fatal", "plug"},
    {"UnpluggedAndPluggedIn", kD, {"unplug", "plug"}, "fatal|recovered"},
    {"UnpluggedWhenDisabled", kD, {"disable", "unplug", "plug", "enable"}, "read"},
    {"Unplugged", kN, {"unplug"}, "fatal", "plug"},
    {"UnpluggedAndPluggedIn", kN, {"unplug", "plug"}, "fatal|recovered"},
    // The kernel stops polling without a word.
    {"TagWithAProtocolOfTheChipsOwn", kN, {"put ax 5A3C91F0", "wait active", "take"}, "read"},
    {"TagThatWasNotAskedFor", kN, {"put a1 01020304", "wait active", "take"}, "read"},
    {"ChipResets", kN, {"reset"}, "read"},
    {"ChipSaysThatItPollsAlready", kN, {"fail discover a0", "card"}, "read"},
    // Polling is not begun again after a card.
    {"RestartRejected", kN, {"fail discover 01", "card"}, "recovered"},
    {"RestartFailed", kN, {"fail discover 03", "card"}, "recovered"},
    {"RestartNotInitialized", kN, {"fail discover 04", "card"}, "recovered"},
    {"RestartSyntaxError", kN, {"fail discover 05", "card"}, "recovered"},
    {"RestartSemanticError", kN, {"fail discover 06", "card"}, "recovered"},
    {"RestartInvalidParameter", kN, {"fail discover 09", "card"}, "recovered"},
    {"RestartActivationFailed", kN, {"fail discover a1", "card"}, "recovered"},
    {"RestartTimedOut", kN, {"fail discover b2", "card"}, "recovered"},
    {"RestartWithoutAnswer", kN, {"fail discover silent", "card"}, "recovered"},
    {"CardIsNotLeft", kN, {"fail deactivate 03", "card"}, "recovered"},
    {"CardIsNotLeftWithoutAnswer", kN, {"fail deactivate silent", "card"}, "recovered"},
    {"CardIsNotLeftWithoutWord", kN, {"fail deactntf silent", "card"}, "recovered"},
    // The chip fails when the reader is switched on.
    {"ResetRefused", kN, {"disable", "fail reset 03", "enable"}, "fatal"},
    {"ResetWithoutAnswer", kN, {"disable", "fail reset silent", "enable"}, "fatal"},
    {"InitRefused", kN, {"disable", "fail init 03", "enable"}, "fatal"},
    {"InitWithoutAnswer", kN, {"disable", "fail init silent", "enable"}, "fatal"},
    {"MapRefused", kN, {"disable", "fail map 03", "enable"}, "fatal"},
    {"MapWithoutAnswer", kN, {"disable", "fail map silent", "enable"}, "fatal"},
    {"ConfigurationRefused", kN, {"disable", "fail setconfig 03", "enable"}, "fatal"},
    {"ConfigurationWithoutAnswer", kN, {"disable", "fail setconfig silent", "enable"}, "fatal"},
    {"StartRefused", kN, {"disable", "fail discover 03", "enable"}, "fatal"},
    {"StartWithoutAnswer", kN, {"disable", "fail discover silent", "enable"}, "fatal"},
    // ... or off.
    {"StopRefused", kN, {"fail deactivate 03", "disable", "enable"}, "read"},
    {"StopWithoutAnswer", kN, {"fail deactivate silent", "disable", "enable"}, "read"},
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

INSTANTIATE_TEST_SUITE_P(Kernel, Faults, ::testing::ValuesIn(kFaults), FaultName);
