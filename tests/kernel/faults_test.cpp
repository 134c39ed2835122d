// Faults below the kernel. After each of them a card is read or the supervisor is told.
#include "tools/kernelbed/kerneltest.h"

namespace {

struct Fault {
  std::string name;
  Stack stack;
  /// What happens to an enabled station: commands for the reader, "card" for a card that is read, "enable",
  /// "disable".
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

using enum virtualnfc::Stack;

const std::vector<Fault> kFaults{
    // One transfer to the reader fails: the kernel stops polling silently.
    {"OneFrameFails", Digital, {"fail send 5"}, "read"},
    {"OneFrameFailsWhileACardIsThere", Digital, {"put a2 04A1B2C3", "wait polling", "fail send 5"}, "read"},
    // The kernel keeps polling.
    {"ConfiguringFailsForAWhile", Digital, {"fail configure 5 1500"}, "read"},
    {"SwitchingTheFieldFails", Digital, {"fail switch 5 3"}, "read"},
    {"SwitchingTheFieldFailsWhenEnabled", Digital, {"disable", "fail switch 5", "enable"}, "read"},
    {"SwitchingTheFieldFailsWhenDisabled", Digital, {"fail switch 5", "disable", "enable"}, "read"},
    {"FramesCollide", Digital, {"fail answer 5 20"}, "read"},
    {"FramesAreCancelled", Digital, {"fail answer 125 20"}, "read"},
    {"NothingAnswersForAWhile", Digital, {"fail answer 110 100"}, "read"},
    // The reader is unplugged.
    {"Unplugged", Digital, {"unplug"}, "fatal", "plug"},
    {"UnpluggedAndPluggedIn", Digital, {"unplug", "plug"}, "fatal|recovered"},
    {"UnpluggedWhenDisabled", Digital, {"disable", "unplug", "plug", "enable"}, "read"},
    {"Unplugged", Nci, {"unplug"}, "fatal", "plug"},
    {"UnpluggedAndPluggedIn", Nci, {"unplug", "plug"}, "fatal|recovered"},
    // The kernel stops polling silently.
    {"TagWithAProtocolOfTheChipsOwn", Nci, {"put ax 5A3C91F0", "wait active", "take"}, "read"},
    {"TagThatWasNotAskedFor", Nci, {"put a1 01020304", "wait active", "take"}, "read"},
    {"ChipResets", Nci, {"reset"}, "read"},
    {"ChipSaysThatItPollsAlready", Nci, {"fail discover a0", "card"}, "read"},
    // Polling does not start again after a card.
    {"RestartRejected", Nci, {"fail discover 01", "card"}, "recovered"},
    {"RestartFailed", Nci, {"fail discover 03", "card"}, "recovered"},
    {"RestartNotInitialized", Nci, {"fail discover 04", "card"}, "recovered"},
    {"RestartSyntaxError", Nci, {"fail discover 05", "card"}, "recovered"},
    {"RestartSemanticError", Nci, {"fail discover 06", "card"}, "recovered"},
    {"RestartInvalidParameter", Nci, {"fail discover 09", "card"}, "recovered"},
    {"RestartActivationFailed", Nci, {"fail discover a1", "card"}, "recovered"},
    {"RestartTimedOut", Nci, {"fail discover b2", "card"}, "recovered"},
    {"RestartWithoutAnswer", Nci, {"fail discover silent", "card"}, "recovered"},
    {"CardIsNotLeft", Nci, {"fail deactivate 03", "card"}, "recovered"},
    {"CardIsNotLeftWithoutAnswer", Nci, {"fail deactivate silent", "card"}, "recovered"},
    {"CardIsNotLeftWithoutWord", Nci, {"fail deactntf silent", "card"}, "recovered"},
    // The chip fails when the reader is switched on.
    {"ResetRefused", Nci, {"disable", "fail reset 03", "enable"}, "fatal"},
    {"ResetWithoutAnswer", Nci, {"disable", "fail reset silent", "enable"}, "fatal"},
    {"InitRefused", Nci, {"disable", "fail init 03", "enable"}, "fatal"},
    {"InitWithoutAnswer", Nci, {"disable", "fail init silent", "enable"}, "fatal"},
    {"MapRefused", Nci, {"disable", "fail map 03", "enable"}, "fatal"},
    {"MapWithoutAnswer", Nci, {"disable", "fail map silent", "enable"}, "fatal"},
    {"ConfigurationRefused", Nci, {"disable", "fail setconfig 03", "enable"}, "fatal"},
    {"ConfigurationWithoutAnswer", Nci, {"disable", "fail setconfig silent", "enable"}, "fatal"},
    {"StartRefused", Nci, {"disable", "fail discover 03", "enable"}, "fatal"},
    {"StartWithoutAnswer", Nci, {"disable", "fail discover silent", "enable"}, "fatal"},
    // ... or off.
    {"StopRefused", Nci, {"fail deactivate 03", "disable", "enable"}, "read"},
    {"StopWithoutAnswer", Nci, {"fail deactivate silent", "disable", "enable"}, "read"},
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
