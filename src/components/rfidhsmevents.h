#pragma once

#include <array>
#include <string>
#include <string_view>

#include "ipc/rfid.pb.h"
#include "statemachines/hsmevent.h"

/// Marks the events of the RFID machine and gives their names, by number.
struct CRfidHsmTag {
  static constexpr std::array<std::string_view, 18> kEventNames{
      "ExtDisableReq",
      "ExtEnableReq",
      "ExtError",
      "ExtOnEnableLearning",
      "ExtOnInjectToken",
      "IntAlive",
      "IntDisablingDone",
      "IntEnablingDone",
      "IntError",
      "IntFatalError",
      "IntInitializingDone",
      "IntOnAuthDone",
      "IntOnAuthTokenFound",
      "IntOnLearningTokenFound",
      "IntRecover",
      "IntRecoveringDone",
      "IntTerminate",
      "IntTerminatingDone",
  };
};

using ExtDisableReq = CHsmEvent<CRfidHsmTag, 0>;                  ///< the supervisor disables the daemon
using ExtEnableReq = CHsmEvent<CRfidHsmTag, 1>;                   ///< the supervisor enables the daemon
using ExtError = CHsmEvent<CRfidHsmTag, 2>;                       ///< error from outside; nobody posts it yet
using ExtOnEnableLearning = CHsmEvent<CRfidHsmTag, 3, bool>;      ///< learning mode on or off
using ExtOnInjectToken = CHsmEvent<CRfidHsmTag, 4, std::string>;  ///< UID to simulate
using IntAlive = CHsmEvent<CRfidHsmTag, 5>;                       ///< nobody posts it yet
using IntDisablingDone = CHsmEvent<CRfidHsmTag, 6>;
using IntEnablingDone = CHsmEvent<CRfidHsmTag, 7>;
using IntError = CHsmEvent<CRfidHsmTag, 8>;       ///< an action failed; its error is kept
using IntFatalError = CHsmEvent<CRfidHsmTag, 9>;  ///< recovery is impossible or failed
using IntInitializingDone = CHsmEvent<CRfidHsmTag, 10>;
using IntOnAuthDone = CHsmEvent<CRfidHsmTag, 11, ipc::MRfidToken>;        ///< the token to notify
using IntOnAuthTokenFound = CHsmEvent<CRfidHsmTag, 12, std::string>;      ///< UID to authorise
using IntOnLearningTokenFound = CHsmEvent<CRfidHsmTag, 13, std::string>;  ///< UID read in learning mode
using IntRecover = CHsmEvent<CRfidHsmTag, 14>;
using IntRecoveringDone = CHsmEvent<CRfidHsmTag, 15>;
using IntTerminate = CHsmEvent<CRfidHsmTag, 16>;  ///< the process is asked to end
using IntTerminatingDone = CHsmEvent<CRfidHsmTag, 17>;
