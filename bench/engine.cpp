#include <fmt/format.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <thread>

#include "enginepeer.h"
#include "measures.h"
#include "measuring.h"
#include "src/components/rfidhsm.h"

namespace bench {

namespace {

/// The daemon's machine, in the daemon's engine.
class Engine {
 public:
  explicit Engine(const std::shared_ptr<CountingHandler>& handler)
      : mHandler(handler), mMachine(std::make_shared<CRfidHsm>(handler)) {
    mHandler->onToken = [this](const std::string& uid) {
      mHandler->SendEvent<IntOnAuthDone>(MakeToken(uid));
    };
  }

  void Enable() { Post<ExtEnableReq>(); }
  void Disable() { Post<ExtDisableReq>(); }
  void Alive() { Post<IntAlive>(); }
  void Unhandled() { Post<IntRecover>(); }
  void Token(const std::string& uid) { Post<IntOnAuthTokenFound>(uid); }
  bool EnableAndWait() {
    const auto event = std::make_shared<ExtEnableReq>();
    auto handled = event->mHandled.get_future();
    mMachine->PostEvent(event);
    return handled.get();
  }
  void Run() { mMachine->Run(); }
  void Stop() { mMachine->Stop(); }

 private:
  template <typename Event, typename... Payload>
  void Post(Payload&&... payload) {
    mMachine->PostEvent(std::make_shared<Event>(std::forward<Payload>(payload)...));
  }

  const std::shared_ptr<CountingHandler> mHandler;
  const std::shared_ptr<CRfidHsm> mMachine;
};

enum class EWork { Internal, Unhandled, Transition, Token };

constexpr std::array<std::pair<EWork, const char*>, 4> kWorks{
    {{EWork::Internal, "engine: event without a change of state"},
     {EWork::Unhandled, "engine: event that no state takes"},
     {EWork::Transition, "engine: change of state"},
     {EWork::Token, "engine: token, both its events"}}};

/// Enables a machine, posts `count` events and returns the time per event in nanoseconds.
template <typename Subject>
double TimeOfEvent(EWork work, int count) {
  const auto handler = std::make_shared<CountingHandler>();
  Subject subject(handler);
  bool isMeasuring = false;
  int left = count;
  Clock::time_point start;
  double time = 0;
  const auto take = [&](int events) {
    left -= events;
    if (left <= 0 && time == 0) {
      time = Microseconds(Clock::now() - start) * 1000 / count;
      subject.Stop();
    }
    return left > 0;
  };
  handler->ExtDisabledRsp = [&] {
    // Two requests and the two events that end Enabling and Disabling.
    if (!isMeasuring || take(4)) {
      subject.Enable();
    }
  };
  handler->ExtSendAlive = [&] { take(count); };
  handler->ExtRfidToken = [&](const ipc::MRfidToken& /*token*/) { take(2); };
  handler->ExtEnabledRsp = [&] {
    if (isMeasuring) {
      work == EWork::Transition ? subject.Disable() : static_cast<void>(take(1));
      return;
    }
    isMeasuring = true;
    start = Clock::now();
    switch (work) {
      case EWork::Internal:
        for (int i = 0; i < count; ++i) {
          subject.Enable();
        }
        break;
      case EWork::Unhandled:
        for (int i = 1; i < count; ++i) {
          subject.Unhandled();
        }
        subject.Alive();  // ends it
        break;
      case EWork::Transition:
        subject.Disable();
        break;
      case EWork::Token:
        for (int i = 0; i < count; i += 2) {
          subject.Token("04A12B5C6D7E80");
        }
        break;
    }
  };
  subject.Disable();
  subject.Run();
  return time;
}

/// Another thread posts a request and waits for it, like an RPC thread. Returns microseconds per request.
template <typename Subject>
double TimeOfRequest(int count) {
  const auto handler = std::make_shared<CountingHandler>();
  Subject subject(handler);
  std::promise<void> enabled;
  bool isEnabled = false;
  handler->ExtDisabledRsp = [&] { subject.Enable(); };
  handler->ExtEnabledRsp = [&] {
    if (!std::exchange(isEnabled, true)) {
      enabled.set_value();
    }
  };
  std::thread machine([&] { subject.Run(); });
  subject.Disable();
  enabled.get_future().get();
  const double time = Time([&] {
    for (int i = 0; i < count; ++i) {
      if (!subject.EnableAndWait()) {
        throw std::runtime_error("a machine refused a request");
      }
    }
  });
  subject.Stop();
  machine.join();
  return time / count;
}

/// Measures both in turn and adds the medians. Each goes first every second time, because the first one
/// changes the heap for the other.
template <typename MeasureEngine, typename MeasureSwitch>
void AddRow(Run& run, int rounds, const std::string& what, const char* unit, MeasureEngine measureEngine,
            MeasureSwitch measureSwitch) {
  std::vector<double> ours;
  std::vector<double> theirs;
  for (int round = 0; round < rounds; ++round) {
    if (round % 2 == 0) {
      ours.push_back(measureEngine());
    }
    theirs.push_back(measureSwitch());
    if (round % 2 != 0) {
      ours.push_back(measureEngine());
    }
  }
  run.rows.push_back({what, unit, Median(ours), "switch", Median(theirs), 1.05});
}

}  // namespace

Run MeasureEngine(const Plan& plan) {
  const int rounds = plan.Count(15, 1);
  const int events = plan.Count(50000, 100);
  const int requests = plan.Count(2000, 20);
  Run run;
  for (const auto& [work, what] : kWorks) {
    AddRow(
        run, rounds, what, "ns", [&, kind = work] { return TimeOfEvent<Engine>(kind, events); },
        [&, kind = work] { return TimeOfEvent<SwitchPeer>(kind, events); });
  }
  AddRow(
      run, rounds, "engine: request of another thread", "us", [&] { return TimeOfRequest<Engine>(requests); },
      [&] { return TimeOfRequest<SwitchPeer>(requests); });
  return run;
}

}  // namespace bench
