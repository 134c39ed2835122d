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
using Leaf = CHsmRow<CRfidHsm, LeafState<CRfidHsm, Id, Composite>>;

// The kinds of actions: an operation of the interface, one that takes the event, a callback, a callback that
// takes the event's value, and a post.

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

constexpr Action kAttemptRecovery{"IntAttemptRecovery", Call<&Base::IntAttemptRecovery>};
constexpr Action kDeinitialize{"IntDeinitialize", Call<&Base::IntDeinitialize>};
constexpr Action kInitialize{"IntInitialize", Call<&Base::IntInitialize>};
constexpr Action kProcessError{"IntProcessError", Call<&Base::IntProcessError>};
constexpr Action kStartAliveTimer{"IntStartAliveTimer", Call<&Base::IntStartAliveTimer>};
constexpr Action kStartPolling{"IntStartPolling", Call<&Base::IntStartPolling>};
constexpr Action kStopAliveTimer{"IntStopAliveTimer", Call<&Base::IntStopAliveTimer>};
constexpr Action kStopPolling{"IntStopPolling", Call<&Base::IntStopPolling>};

constexpr Action kAuthenticateToken{"IntAuthenticateToken",
                                    CallWithEvent<IntOnAuthTokenFound, &Base::IntAuthenticateToken>};
constexpr Action kEnableLearningTask{"IntEnableLearningTask",
                                     CallWithEvent<ExtOnEnableLearning, &Base::IntEnableLearningTask>};
constexpr Action kInjectToken{"IntInjectToken", CallWithEvent<ExtOnInjectToken, &Base::IntInjectToken>};

constexpr Action kDisabledRsp{"ExtDisabledRsp", Notify<&Base::ExtDisabledRsp>};
constexpr Action kEnabledRsp{"ExtEnabledRsp", Notify<&Base::ExtEnabledRsp>};
constexpr Action kErrorRsp{"ExtErrorRsp", Notify<&Base::ExtErrorRsp>};
constexpr Action kFatalErrorRsp{"ExtFatalErrorRsp", Notify<&Base::ExtFatalErrorRsp>};
constexpr Action kSendAlive{"ExtSendAlive", Notify<&Base::ExtSendAlive>};
constexpr Action kUninitializedRsp{"ExtUninitializedRsp", Notify<&Base::ExtUninitializedRsp>};
constexpr Action kRfidToken{"ExtRfidToken", NotifyPayload<IntOnAuthDone, &Base::ExtRfidToken>};
constexpr Action kRfidLearningToken{"ExtRfidLearningToken",
                                    NotifyPayload<IntOnLearningTokenFound, &Base::ExtRfidLearningToken>};

constexpr Action kPostDisablingDone{"post IntDisablingDone", Post<IntDisablingDone>};
constexpr Action kPostEnablingDone{"post IntEnablingDone", Post<IntEnablingDone>};
constexpr Action kPostError{"post IntError", Post<IntError>};
constexpr Action kPostInitializingDone{"post IntInitializingDone", Post<IntInitializingDone>};
constexpr Action kPostRecover{"post IntRecover", Post<IntRecover>};
constexpr Action kPostTerminatingDone{"post IntTerminatingDone", Post<IntTerminatingDone>};
constexpr Action kStop{"Stop", StopMachine};

/// Created at program start, so that the first event of a machine does not pay for it.
const CHsmDefinition<CRfidHsm> kDefinition{
    .name = "Statemachine",
    .initial = Uninitialized,

    // The reactions of every leaf that has no own reaction to the event.
    .reactions =
        {
            On<IntError>::GoTo(Error),
            On<IntFatalError>::GoTo(FatalError),
            On<IntTerminate>::GoTo(Terminating),
            On<ExtError>::Do(kPostError),
            On<IntAlive>::Do(kSendAlive),
        },

    // name, entry actions, exit actions, reactions
    .leaves = LeavesInOrder(
        Leaf<Disabled>{"Disabled",
                       {kDisabledRsp},
                       {},
                       {
                           On<ExtEnableReq>::GoTo(Enabling),
                           On<ExtDisableReq>::Do(kDisabledRsp),
                       }},
        Leaf<Disabling>{"Disabling",
                        {kStopPolling, kDeinitialize, kPostDisablingDone},
                        {},
                        {On<IntDisablingDone>::GoTo(Disabled)}},
        Leaf<Enabled>{"Enabled",
                      {kStartPolling, kEnabledRsp, kStartAliveTimer},
                      {kStopAliveTimer},
                      {
                          On<ExtDisableReq>::GoTo(Disabling),
                          On<IntOnAuthTokenFound>::Do(kAuthenticateToken),
                          On<IntOnAuthDone>::Do(kRfidToken),
                          On<IntOnLearningTokenFound>::Do(kRfidLearningToken),
                          On<ExtOnEnableLearning>::Do(kEnableLearningTask),
                          On<ExtOnInjectToken>::Do(kInjectToken),
                          On<ExtEnableReq>::Do(kEnabledRsp),
                      }},
        Leaf<Enabling>{
            "Enabling", {kInitialize, kPostEnablingDone}, {}, {On<IntEnablingDone>::GoTo(Enabled)}},
        Leaf<Error>{
            "Error", {kProcessError, kErrorRsp, kPostRecover}, {}, {On<IntRecover>::GoTo(Recovering)}},
        Leaf<FatalError>{"FatalError",
                         {kFatalErrorRsp},
                         {},
                         {
                             On<IntError>::Do(kFatalErrorRsp),
                             On<ExtDisableReq>::Do(kFatalErrorRsp),
                             On<ExtEnableReq>::Do(kFatalErrorRsp),
                         }},
        Leaf<Initializing>{
            "Initializing", {kPostInitializingDone}, {}, {On<IntInitializingDone>::GoTo(Disabled)}},
        Leaf<Recovering>{"Recovering", {kAttemptRecovery}, {}, {On<IntRecoveringDone>::GoTo(Disabled)}},
        Leaf<Terminating>{
            "Terminating", {kPostTerminatingDone}, {}, {On<IntTerminatingDone>::GoTo(FinalStatemachine)}},
        Leaf<Uninitialized>{
            "Uninitialized", {kUninitializedRsp}, {}, {On<ExtDisableReq>::GoTo(Initializing)}},
        Leaf<FinalStatemachine>{"_Final_Statemachine", {kStop}, {}, {}}),
};

}  // namespace

const CHsmDefinition<CRfidHsm>& CHsmDefinitionOf<CRfidHsmActionHandlerBase>::Get() {
  return kDefinition;
}
