#include "statemachines/utils/statemachinesutility.h"

#include <gmock/gmock.h>

#include <thread>

#include "tests/framework/logcapture.h"
#include "tests/statemachines/doormachine.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::MatchesRegex;

namespace {

/// The members of a handler and of a service that the bridge needs.
struct BridgedHandler : DoorHandler {
  using EnableRequest = Open;
  using DisableRequest = Ring;
  std::function<void()> ExtUninitializedRsp, ExtDisabledRsp, ExtEnabledRsp, ExtErrorRsp, ExtFatalErrorRsp,
      ExtSendAlive;
};

struct Service {
  std::function<ipc::MResult()> IEnableCall, IDisableCall;
  void State(const ipc::MState& state) { mStates.push_back(state.state()); }
  void Alive() { ++mAlive; }
  std::vector<int> mStates;
  int mAlive = 0;
};

}  // namespace

TEST(StatemachinesUtility, RequestsBecomeEventsAndResponsesBecomeNotifications) {
  LogCapture log;
  const auto handler = std::make_shared<BridgedHandler>();
  const auto service = std::make_shared<Service>();
  const auto machine = std::make_shared<DoorMachine>(handler);
  ConnectIProcessControl(handler, service, std::shared_ptr<IHsmInterface>(machine));
  std::thread runner([&] { machine->Run(); });

  EXPECT_EQ(service->IEnableCall().result(), ipc::EResultOk);
  EXPECT_EQ(service->IDisableCall().result(), ipc::EResultIllegal);
  EXPECT_EQ(service->IEnableCall().result(), ipc::EResultIllegal);  // the door is open already
  machine->Stop();
  runner.join();
  EXPECT_THROW(service->IEnableCall(), std::future_error);

  log.Clear();
  for (const auto& respond : {handler->ExtUninitializedRsp, handler->ExtDisabledRsp, handler->ExtEnabledRsp,
                              handler->ExtErrorRsp, handler->ExtFatalErrorRsp, handler->ExtSendAlive}) {
    respond();
  }
  EXPECT_THAT(service->mStates, ElementsAre(1, 2, 3, 4, 5));
  EXPECT_EQ(service->mAlive, 1);
  const auto traces = log.Texts(Log::ELogLevel::Trace);
  EXPECT_THAT(traces, ElementsAre(EndsWith(") ExtUninitializedRsp"), EndsWith(") ExtDisabledRsp"),
                                  EndsWith(") ExtEnabledRsp"), EndsWith(") ExtErrorRsp"),
                                  EndsWith(") ExtFatalErrorRsp"), EndsWith(") ExtSendAlive")));
  EXPECT_THAT(traces.front(), MatchesRegex("\\(statemachines/utils/statemachinesutility.*:[0-9]+\\) .*"));

  // Handler and service hold each other.
  service->IEnableCall = nullptr;
  service->IDisableCall = nullptr;
}
