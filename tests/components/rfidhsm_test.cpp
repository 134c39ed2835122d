#include "src/components/rfidhsm.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/framework/logcapture.h"

using ::testing::Contains;
using ::testing::ElementsAreArray;

namespace {

/// Writes every action and callback into the log, between the machine's own trace lines.
class RecordingHandler : public CRfidHsmActionHandlerBase {
 public:
  RecordingHandler() {
    ExtDisabledRsp = [this] { Record("ExtDisabledRsp"); };
    ExtEnabledRsp = [this] { Record("ExtEnabledRsp"); };
    ExtErrorRsp = [this] { Record("ExtErrorRsp"); };
    ExtFatalErrorRsp = [this] { Record("ExtFatalErrorRsp"); };
    ExtUninitializedRsp = [this] { Record("ExtUninitializedRsp"); };
    ExtSendAlive = [this] { Record("ExtSendAlive"); };
    ExtRfidToken = [this](const ipc::MRfidToken& token) { Record("ExtRfidToken " + token.uid()); };
    ExtRfidLearningToken = [this](const std::string& uid) { Record("ExtRfidLearningToken " + uid); };
  }
  void IntAttemptRecovery() override { Record("IntAttemptRecovery"); }
  void IntAuthenticateToken(const std::shared_ptr<IntOnAuthTokenFound>& event) override {
    Record("IntAuthenticateToken " + event->GetPayload());
  }
  void IntDeinitialize() override { Record("IntDeinitialize"); }
  void IntEnableLearningTask(const std::shared_ptr<ExtOnEnableLearning>& event) override {
    Record(fmt::format("IntEnableLearningTask {}", event->GetPayload()));
  }
  void IntInitialize() override { Record("IntInitialize"); }
  void IntStopAliveTimer() override { Record("IntStopAliveTimer"); }
  void IntProcessError() override { Record("IntProcessError"); }
  void IntInjectToken(const std::shared_ptr<ExtOnInjectToken>& event) override {
    Record("IntInjectToken " + event->GetPayload());
  }
  void IntStartAliveTimer() override { Record("IntStartAliveTimer"); }
  void IntStartPolling() override { Record("IntStartPolling"); }
  void IntStopPolling() override { Record("IntStopPolling"); }

  std::map<std::string, std::function<void()>> mOn;  ///< what else an action does

 private:
  void Record(const std::string& action) {
    Log::Trace("{}", action);
    if (const auto on = mOn.find(action); on != mOn.end()) {
      on->second();
    }
  }
};

/// Ends the run when it is dispatched, with no other effect.
struct EndOfTest : IHsmEvent {
  explicit EndOfTest(IHsmInterface& machine) : mMachine(machine) {}
  const std::string& GetName() const override {
    mMachine.Stop();
    return mName;
  }
  IHsmInterface& mMachine;
  std::string mName = "EndOfTest";
};

using Makers = std::map<std::string, std::function<std::shared_ptr<IHsmEvent>()>>;

template <typename... Event>
Makers MakersOf() {
  return {{Event().GetName(), [] { return std::make_shared<Event>(); }}...};
}

std::shared_ptr<IHsmEvent> MakeEvent(const std::string& name) {
  static const auto makers = [] {
    auto all = MakersOf<ExtDisableReq, ExtEnableReq, ExtError, IntAlive, IntDisablingDone, IntEnablingDone,
                        IntError, IntFatalError, IntInitializingDone, IntRecover, IntRecoveringDone,
                        IntTerminate, IntTerminatingDone>();
    all.merge(Makers{
        {"ExtOnEnableLearning", [] { return std::make_shared<ExtOnEnableLearning>(true); }},
        {"ExtOnInjectToken", [] { return std::make_shared<ExtOnInjectToken>("04A1B2C3"); }},
        {"IntOnAuthDone",
         [] {
           ipc::MRfidToken token;
           token.set_uid("DONE");
           return std::make_shared<IntOnAuthDone>(token);
         }},
        {"IntOnAuthTokenFound", [] { return std::make_shared<IntOnAuthTokenFound>("FOUND"); }},
        {"IntOnLearningTokenFound", [] { return std::make_shared<IntOnLearningTokenFound>("LEARN"); }},
    });
    return all;
  }();
  return makers.at(name)();
}

using Names = std::vector<std::string>;

/// How to get into each state from the start.
const std::map<std::string, Names> kPaths{
    {"Disabled", {"ExtDisableReq", "IntInitializingDone"}},
    {"Disabling",
     {"ExtDisableReq", "IntInitializingDone", "ExtEnableReq", "IntEnablingDone", "ExtDisableReq"}},
    {"Enabled", {"ExtDisableReq", "IntInitializingDone", "ExtEnableReq", "IntEnablingDone"}},
    {"Enabling", {"ExtDisableReq", "IntInitializingDone", "ExtEnableReq"}},
    {"Error", {"IntError"}},
    {"FatalError", {"IntFatalError"}},
    {"Initializing", {"ExtDisableReq"}},
    {"Recovering", {"IntError", "IntRecover"}},
    {"Terminating", {"IntTerminate"}},
    {"Uninitialized", {}},
};

/// A state's reaction to an event, as the station expects it.
struct Row {
  std::string state;  ///< empty: every state that has no row of its own for the event
  std::string event;
  std::string target;  ///< empty: the state stays
  std::string action;  ///< of the reaction itself; empty: none
};

/// All other events are unhandled.
const std::vector<Row> kTable{
    {"Uninitialized", "ExtDisableReq", "Initializing", ""},
    {"Initializing", "IntInitializingDone", "Disabled", ""},
    {"Disabled", "ExtEnableReq", "Enabling", ""},
    {"Disabled", "ExtDisableReq", "", "ExtDisabledRsp"},
    {"Enabling", "IntEnablingDone", "Enabled", ""},
    {"Enabled", "ExtDisableReq", "Disabling", ""},
    {"Enabled", "IntOnAuthTokenFound", "", "IntAuthenticateToken FOUND"},
    {"Enabled", "IntOnAuthDone", "", "ExtRfidToken DONE"},
    {"Enabled", "IntOnLearningTokenFound", "", "ExtRfidLearningToken LEARN"},
    {"Enabled", "ExtOnEnableLearning", "", "IntEnableLearningTask true"},
    {"Enabled", "ExtOnInjectToken", "", "IntInjectToken 04A1B2C3"},
    {"Enabled", "ExtEnableReq", "", "ExtEnabledRsp"},
    {"Disabling", "IntDisablingDone", "Disabled", ""},
    {"Error", "IntRecover", "Recovering", ""},
    {"Recovering", "IntRecoveringDone", "Disabled", ""},
    {"FatalError", "IntError", "", "ExtFatalErrorRsp"},
    {"FatalError", "ExtDisableReq", "", "ExtFatalErrorRsp"},
    {"FatalError", "ExtEnableReq", "", "ExtFatalErrorRsp"},
    {"Terminating", "IntTerminatingDone", "_Final_Statemachine", ""},
    {"", "IntError", "Error", ""},
    {"", "IntFatalError", "FatalError", ""},
    {"", "IntTerminate", "Terminating", ""},
    {"", "ExtError", "", ""},
    {"", "IntAlive", "", "ExtSendAlive"},
};

/// The entry actions without the posts.
const std::map<std::string, Names> kEntries{
    {"Disabled", {"ExtDisabledRsp"}},
    {"Disabling", {"IntStopPolling", "IntDeinitialize"}},
    {"Enabled", {"IntStartPolling", "ExtEnabledRsp", "IntStartAliveTimer"}},
    {"Enabling", {"IntInitialize"}},
    {"Error", {"IntProcessError", "ExtErrorRsp"}},
    {"FatalError", {"ExtFatalErrorRsp"}},
    {"Initializing", {}},
    {"Recovering", {"IntAttemptRecovery"}},
    {"Terminating", {}},
    {"_Final_Statemachine", {}},
};

/// The event that an entry posts.
const std::map<std::string, std::string> kPosts{
    {"Disabling", "IntDisablingDone"},       {"Enabling", "IntEnablingDone"},       {"Error", "IntRecover"},
    {"Initializing", "IntInitializingDone"}, {"Terminating", "IntTerminatingDone"},
};

class RfidHsm : public ::testing::Test {
 protected:
  std::future<bool> Post(const std::shared_ptr<IHsmEvent>& event) {
    auto handled = event->mHandled.get_future();
    mMachine->PostEvent(event);
    return handled;
  }
  std::future<bool> Post(const std::string& name) { return Post(MakeEvent(name)); }
  void PostAll(const Names& names) {
    for (const auto& name : names) {
      Post(name);
    }
  }
  void PostEndOfTest() { Post(std::make_shared<EndOfTest>(*mMachine)); }

  /// The trace from the last such line to the end of the test.
  Names TraceFrom(const std::string& firstLine) const {
    const auto lines = mLog.Texts(Log::ELogLevel::Trace);
    const auto first = std::find(lines.rbegin(), lines.rend(), firstLine);
    auto end = std::find_if(lines.begin(), lines.end(),
                            [](const auto& line) { return line.find("EndOfTest") != std::string::npos; });
    return first == lines.rend() ? Names{} : Names(std::prev(first.base()), end);
  }

  LogCapture mLog;
  std::shared_ptr<RecordingHandler> mHandler = std::make_shared<RecordingHandler>();
  std::shared_ptr<CRfidHsm> mMachine = std::make_shared<CRfidHsm>(mHandler);
};

class RfidHsmPair : public RfidHsm,
                    public ::testing::WithParamInterface<std::tuple<std::string, std::string>> {};

std::vector<std::string> States() {
  std::vector<std::string> names;
  for (const auto& [state, path] : kPaths) {
    names.push_back(state);
  }
  return names;
}

std::vector<std::string> Events() {
  return {CRfidHsmTag::kEventNames.begin(), CRfidHsmTag::kEventNames.end()};
}

}  // namespace

TEST_P(RfidHsmPair, ReactsAsTheTableSays) {
  const auto& state = std::get<0>(GetParam());
  const auto& event = std::get<1>(GetParam());
  const auto row = std::find_if(kTable.begin(), kTable.end(), [&](const Row& candidate) {
    return candidate.event == event && (candidate.state == state || candidate.state.empty());
  });
  const bool isHandled = row != kTable.end();
  Names trace{fmt::format("State {}: event recv {}", state, event)};
  if (!isHandled) {
    trace.push_back(fmt::format("State Statemachine: event unhn {}", event));
  } else {
    trace.push_back(
        fmt::format("State {}: event hndl {}", row->state.empty() ? "Statemachine" : state, event));
    if (!row->action.empty()) {
      trace.push_back(row->action);
    }
    if (!row->target.empty()) {
      trace.push_back(fmt::format("State {}: exit", state));
      if (state == "Enabled") {
        trace.push_back("IntStopAliveTimer");
      }
      trace.push_back(fmt::format("State {}: entry", row->target));
      const auto entry = kEntries.find(row->target);
      trace.insert(trace.end(), entry->second.begin(), entry->second.end());
    }
  }

  PostAll(kPaths.at(state));
  auto handled = Post(event);
  PostEndOfTest();
  mMachine->Run();
  EXPECT_EQ(handled.get(), isHandled);
  EXPECT_THAT(TraceFrom(trace.front()), ElementsAreArray(trace));
}

INSTANTIATE_TEST_SUITE_P(Every, RfidHsmPair,
                         ::testing::Combine(::testing::ValuesIn(States()), ::testing::ValuesIn(Events())),
                         [](const auto& pair) {
                           return std::get<0>(pair.param) + "_" + std::get<1>(pair.param);
                         });

TEST_F(RfidHsm, TheFinalStateDispatchesNothingMore) {
  PostAll({"IntTerminate", "IntTerminatingDone"});
  for (const auto& event : Events()) {
    Post(event);
  }
  mMachine->Run();
  const auto lines = mLog.Texts(Log::ELogLevel::Trace);
  EXPECT_EQ(lines.back(), "State _Final_Statemachine: entry");
  EXPECT_FALSE(mMachine->IsRunning());
}

TEST_F(RfidHsm, PassingStatesPostTheEventThatMovesThemOn) {
  for (const auto& [state, posted] : kPosts) {
    SCOPED_TRACE(state);
    mMachine = std::make_shared<CRfidHsm>(mHandler);
    mLog.Clear();
    PostAll(kPaths.at(state));
    Post("IntAlive");
    bool ended = false;
    mHandler->mOn["ExtSendAlive"] = [&] {
      if (!ended) {
        ended = true;
        PostEndOfTest();  // behind the entry's post
      }
    };
    mMachine->Run();
    EXPECT_FALSE(TraceFrom(fmt::format("State {}: event recv {}", state, posted)).empty());
  }
}

TEST_F(RfidHsm, AnErrorOfAnEntryComesBeforeTheEntrysOwnEvent) {
  for (const auto& [state, action] :
       std::map<std::string, std::string>{{"Enabling", "IntInitialize"}, {"Disabling", "IntDeinitialize"}}) {
    mMachine = std::make_shared<CRfidHsm>(mHandler);
    mHandler->mOn = {{action, [this] { Post("IntError"); }}, {"ExtErrorRsp", [this] { PostEndOfTest(); }}};
    PostAll(kPaths.at(state));
    mMachine->Run();
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Trace),
                Contains(fmt::format("State {}: event recv IntError", state)));
  }
}

TEST_F(RfidHsm, AnErrorFromOutsideIsHandledLikeItsOwn) {
  PostAll(kPaths.at("Disabled"));
  Post("ExtError");
  mHandler->mOn["ExtErrorRsp"] = [this] { PostEndOfTest(); };
  mMachine->Run();
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Trace), Contains("State Disabled: event recv IntError"));
}

TEST_F(RfidHsm, AFatalErrorFoundWhileProcessingAnErrorPreventsTheRecovery) {
  mHandler->mOn["IntProcessError"] = [this] { Post("IntFatalError"); };
  mHandler->mOn["ExtFatalErrorRsp"] = [this] { PostEndOfTest(); };
  Post("IntError");
  mMachine->Run();
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Trace), Contains("State Statemachine: event unhn IntRecover"));
}

TEST_F(RfidHsm, UnboundCallbacksAreSkipped) {
  mHandler->ExtRfidToken = nullptr;
  mHandler->ExtSendAlive = nullptr;
  PostAll(kPaths.at("Enabled"));
  auto token = Post("IntOnAuthDone");
  auto alive = Post("IntAlive");
  PostEndOfTest();
  mMachine->Run();
  EXPECT_TRUE(token.get());
  EXPECT_TRUE(alive.get());
}
