#include "src/components/rfidhsm.h"

#include <functional>
#include <memory>

namespace {

using namespace RfidHsmState;

using Base = CRfidHsmActionHandlerBase;
using EventPtr = std::shared_ptr<IHsmEvent>;
using Action = CHsmAction<CRfidHsm>;

template <typename Event>
using On = CHsmOn<CRfidHsm, Event>;

using Composite = CompState<CRfidHsm, 0, CompState<CRfidHsm, 0, TopState<CRfidHsm>>>;

template <unsigned Id>
const TopState<CRfidHsm>* Leaf() {
  return &LeafState<CRfidHsm, Id, Composite>::kInstance;
}

// The forms that an action can take: an action of the interface, one that is given the event, a callback, a
// callback that is given the event's value, and a post.

template <void (Base::*Member)()>
void Call(CRfidHsm& hsm, const EventPtr&) {
  (hsm.GetHandler().*Member)();
}

template <typename Event, void (Base::*Member)(const std::shared_ptr<Event>&)>
void CallWithEvent(CRfidHsm& hsm, const EventPtr& event) {
  (hsm.GetHandler().*Member)(std::dynamic_pointer_cast<Event>(event));
}

template <std::function<void()> Base::*Member>
void Notify(CRfidHsm& hsm, const EventPtr&) {
  if (const auto& callback = hsm.GetHandler().*Member) {
    callback();
  }
}

template <typename Event, auto Member>
void NotifyPayload(CRfidHsm& hsm, const EventPtr& event) {
  if (const auto& callback = hsm.GetHandler().*Member) {
    callback(std::dynamic_pointer_cast<Event>(event)->GetPayload());
  }
}

template <typename Event>
void Post(CRfidHsm& hsm, const EventPtr&) {
  hsm.GetHandler().SendEvent<Event>();
}

void StopMachine(CRfidHsm& hsm, const EventPtr&) {
  hsm.Stop();
}

CHsmDefinition<CRfidHsm> MakeDefinition() {
  const Action attemptRecovery{"IntAttemptRecovery", Call<&Base::IntAttemptRecovery>};
  const Action deinitialize{"IntDeinitialize", Call<&Base::IntDeinitialize>};
  const Action initialize{"IntInitialize", Call<&Base::IntInitialize>};
  const Action processError{"IntProcessError", Call<&Base::IntProcessError>};
  const Action startAliveTimer{"IntStartAliveTimer", Call<&Base::IntStartAliveTimer>};
  const Action startPolling{"IntStartPolling", Call<&Base::IntStartPolling>};
  const Action stopAliveTimer{"IntStopAliveTimer", Call<&Base::IntStopAliveTimer>};
  const Action stopPolling{"IntStopPolling", Call<&Base::IntStopPolling>};

  const Action authenticateToken{"IntAuthenticateToken",
                                 CallWithEvent<IntOnAuthTokenFound, &Base::IntAuthenticateToken>};
  const Action enableLearningTask{"IntEnableLearningTask",
                                  CallWithEvent<ExtOnEnableLearning, &Base::IntEnableLearningTask>};
  const Action injectToken{"IntInjectToken", CallWithEvent<ExtOnInjectToken, &Base::IntInjectToken>};

  const Action disabledRsp{"ExtDisabledRsp", Notify<&Base::ExtDisabledRsp>};
  const Action enabledRsp{"ExtEnabledRsp", Notify<&Base::ExtEnabledRsp>};
  const Action errorRsp{"ExtErrorRsp", Notify<&Base::ExtErrorRsp>};
  const Action fatalErrorRsp{"ExtFatalErrorRsp", Notify<&Base::ExtFatalErrorRsp>};
  const Action sendAlive{"ExtSendAlive", Notify<&Base::ExtSendAlive>};
  const Action uninitializedRsp{"ExtUninitializedRsp", Notify<&Base::ExtUninitializedRsp>};
  const Action rfidToken{"ExtRfidToken", NotifyPayload<IntOnAuthDone, &Base::ExtRfidToken>};
  const Action rfidLearningToken{"ExtRfidLearningToken",
                                 NotifyPayload<IntOnLearningTokenFound, &Base::ExtRfidLearningToken>};

  const Action postDisablingDone{"post IntDisablingDone", Post<IntDisablingDone>};
  const Action postEnablingDone{"post IntEnablingDone", Post<IntEnablingDone>};
  const Action postError{"post IntError", Post<IntError>};
  const Action postInitializingDone{"post IntInitializingDone", Post<IntInitializingDone>};
  const Action postRecover{"post IntRecover", Post<IntRecover>};
  const Action postTerminatingDone{"post IntTerminatingDone", Post<IntTerminatingDone>};
  const Action stop{"Stop", StopMachine};

  return {
      .name = "Statemachine",
      .initial = Uninitialized,

      // What every leaf does about events that it has no reaction of its own to.
      .reactions =
          {
              On<IntError>::GoTo(Error),
              On<IntFatalError>::GoTo(FatalError),
              On<IntTerminate>::GoTo(Terminating),
              On<ExtError>::Do(postError),
              On<IntAlive>::Do(sendAlive),
          },

      // state, name, entry actions, exit actions, reactions
      .leaves =
          {
              {Leaf<Disabled>(),
               "Disabled",
               {disabledRsp},
               {},
               {
                   On<ExtEnableReq>::GoTo(Enabling),
                   On<ExtDisableReq>::Do(disabledRsp),
               }},
              {Leaf<Disabling>(),
               "Disabling",
               {stopPolling, deinitialize, postDisablingDone},
               {},
               {
                   On<IntDisablingDone>::GoTo(Disabled),
               }},
              {Leaf<Enabled>(),
               "Enabled",
               {startPolling, enabledRsp, startAliveTimer},
               {stopAliveTimer},
               {
                   On<ExtDisableReq>::GoTo(Disabling),
                   On<IntOnAuthTokenFound>::Do(authenticateToken),
                   On<IntOnAuthDone>::Do(rfidToken),
                   On<IntOnLearningTokenFound>::Do(rfidLearningToken),
                   On<ExtOnEnableLearning>::Do(enableLearningTask),
                   On<ExtOnInjectToken>::Do(injectToken),
                   On<ExtEnableReq>::Do(enabledRsp),
               }},
              {Leaf<Enabling>(),
               "Enabling",
               {initialize, postEnablingDone},
               {},
               {
                   On<IntEnablingDone>::GoTo(Enabled),
               }},
              {Leaf<Error>(),
               "Error",
               {processError, errorRsp, postRecover},
               {},
               {
                   On<IntRecover>::GoTo(Recovering),
               }},
              {Leaf<FatalError>(),
               "FatalError",
               {fatalErrorRsp},
               {},
               {
                   On<IntError>::Do(fatalErrorRsp),
                   On<ExtDisableReq>::Do(fatalErrorRsp),
                   On<ExtEnableReq>::Do(fatalErrorRsp),
               }},
              {Leaf<Initializing>(),
               "Initializing",
               {postInitializingDone},
               {},
               {
                   On<IntInitializingDone>::GoTo(Disabled),
               }},
              {Leaf<Recovering>(),
               "Recovering",
               {attemptRecovery},
               {},
               {
                   On<IntRecoveringDone>::GoTo(Disabled),
               }},
              {Leaf<Terminating>(),
               "Terminating",
               {postTerminatingDone},
               {},
               {
                   On<IntTerminatingDone>::GoTo(FinalStatemachine),
               }},
              {Leaf<Uninitialized>(),
               "Uninitialized",
               {uninitializedRsp},
               {},
               {
                   On<ExtDisableReq>::GoTo(Initializing),
               }},
              {Leaf<FinalStatemachine>(), "_Final_Statemachine", {stop}, {}, {}},
          },
  };
}

}  // namespace

const CHsmDefinition<CRfidHsm>& CHsmDefinitionOf<CRfidHsmActionHandlerBase>::Get() {
  static const CHsmDefinition<CRfidHsm> definition = MakeDefinition();
  return definition;
}

namespace {
// Made at program start, so that no machine's first event pays for it.
[[maybe_unused]] const auto& madeAtStart = CHsmDefinitionOf<CRfidHsmActionHandlerBase>::Get();
}  // namespace
