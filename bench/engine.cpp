#include <fmt/format.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <thread>

#include "enginepeers.h"
#include "measures.h"
#include "measuring.h"
#include "src/components/rfidhsm.h"

namespace bench {

namespace {

ipc::MRfidToken MakeToken(const std::string& uid) {
  ipc::MRfidToken token;
  token.set_uid(uid);
  token.set_auth_state(ipc::ERfidUidNotInList);
  return token;
}

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

/// A peer's machine in its thread's loop, with the same operations.
template <typename Machine>
class Peer {
 public:
  explicit Peer(const std::shared_ptr<CountingHandler>& handler)
      : mHandler(handler), mMachine(*handler, [this](EPeerEvent event) { Post(event); }) {
    mHandler->onToken = [this](const std::string& uid) {
      mQueue.Post(std::make_shared<TokenEvent>(MakeToken(uid)));
    };
  }

  void Enable() { Post(EPeerEvent::Enable); }
  void Disable() { Post(EPeerEvent::Disable); }
  void Alive() { Post(EPeerEvent::Alive); }
  void Unhandled() { Post(EPeerEvent::Recover); }
  void Token(const std::string& uid) { mQueue.Post(std::make_shared<UidEvent>(uid)); }
  bool EnableAndWait() {
    const auto event = std::make_shared<PeerEvent>(EPeerEvent::Enable);
    auto handled = event->handled.get_future();
    mQueue.Post(event);
    return handled.get();
  }
  void Run() {
    while (const auto event = mQueue.Take()) {
      event->handled.set_value(mMachine.Process(*event));
    }
  }
  void Stop() { mQueue.Stop(); }

 private:
  void Post(EPeerEvent event) { mQueue.Post(std::make_shared<PeerEvent>(event)); }

  const std::shared_ptr<CountingHandler> mHandler;
  PeerQueue mQueue;
  Machine mMachine;
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

/// Calls measure(0), measure(1), measure(2) for each round, and returns the medians. They take turns in going
/// first, because the first one leaves the heap changed for the others.
template <typename Measure>
std::array<double, 3> InTurns(int rounds, Measure measure) {
  std::array<std::vector<double>, 3> times;
  for (std::size_t round = 0; round < static_cast<std::size_t>(rounds); ++round) {
    for (std::size_t i = 0; i < times.size(); ++i) {
      const std::size_t subject = (i + round) % times.size();
      times[subject].push_back(measure(subject));
    }
  }
  return {Median(times[0]), Median(times[1]), Median(times[2])};
}

void AddRows(Run& run, const std::string& what, const char* unit, const std::array<double, 3>& times) {
  run.rows.push_back({what, unit, times[0], "switch", times[1], 1.05});
  run.rows.push_back({what, unit, times[0], "Boost.MSM", times[2], 1.05});
}

using Switch = Peer<SwitchMachine>;
using Msm = Peer<MsmMachine>;

}  // namespace

Run MeasureEngine(const Plan& plan) {
  const int rounds = plan.Count(15, 1);
  const int events = plan.Count(50000, 100);
  const int requests = plan.Count(2000, 20);
  Run run;
  for (const auto& [work, what] : kWorks) {
    AddRows(run, what, "ns", InTurns(rounds, [&, kind = work](std::size_t subject) {
              return subject == 0   ? TimeOfEvent<Engine>(kind, events)
                     : subject == 1 ? TimeOfEvent<Switch>(kind, events)
                                    : TimeOfEvent<Msm>(kind, events);
            }));
  }
  AddRows(run, "engine: request of another thread", "us", InTurns(rounds, [&](std::size_t subject) {
            return subject == 0   ? TimeOfRequest<Engine>(requests)
                   : subject == 1 ? TimeOfRequest<Switch>(requests)
                                  : TimeOfRequest<Msm>(requests);
          }));
  return run;
}

}  // namespace bench
