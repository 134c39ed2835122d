#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "framework/worker.h"
#include "statemachines/utils/statemachinesutility.h"
#include "tests/framework/handover.h"
#include "tests/jitter.h"
#include "tests/statemachines/doormachine.h"

/// Stress with random timing.
namespace {

using std::chrono::microseconds;

/// How many requests of one kind were taken and refused. A request to a stopped machine is neither taken nor
/// refused.
struct Answers {
  int taken = 0;
  int refused = 0;
};
using Outcome = std::map<std::string, Answers>;  // by the name of the event

template <typename Event>
void Ask(const std::shared_ptr<IHsmInterface>& machine, Outcome& outcome) {
  auto& answers = outcome[Event::Name()];
  try {
    ++(PostAndWait<Event>(machine).result() == ipc::EResultOk ? answers.taken : answers.refused);
  } catch (const std::future_error& e) {
    EXPECT_EQ(e.code(), std::future_errc::broken_promise);
  }
}

/// Sends this many random requests to the door.
Outcome Visit(const std::shared_ptr<IHsmInterface>& machine, unsigned stream, int times) {
  static constexpr auto kRequests = {Ask<Open>, Ask<Close>, Ask<Ring>, Ask<Knock>};
  Jitter jitter(stream);
  Outcome outcome;
  for (int i = 0; i < times; ++i) {
    kRequests.begin()[jitter.Below(kRequests.size())](machine, outcome);
    jitter.Pass();
  }
  return outcome;
}

}  // namespace

TEST(Schedules, EveryPostIsAnsweredWheneverTheMachineStartsAndStops) {
  constexpr unsigned kRounds = 150;
  constexpr unsigned kPosters = 3;
  constexpr int kPostsEach = 20;
  for (unsigned round = 0; round < kRounds; ++round) {
    const auto handler = std::make_shared<DoorHandler>();
    auto machine = std::make_shared<DoorMachine>(handler);
    std::map<std::string, int> done;  // the machine's thread only
    handler->OnAction = [&](const std::string& action) {
      ++done[action];
      if (action == "knocked") {
        handler->SendEvent<Say>("answer");  // reactions post events, too
      }
    };
    std::vector<std::future<Outcome>> posters;
    for (unsigned poster = 0; poster < kPosters; ++poster) {
      posters.push_back(std::async(std::launch::async, Visit, machine, round * 10 + poster, kPostsEach));
    }
    std::thread stopper([&] {
      Jitter jitter(round * 10 + kPosters);
      for (unsigned pauses = jitter.Below(40); pauses > 0; --pauses) {
        jitter.Pass();
      }
      machine->Stop();
      jitter.Pass();
      machine->Stop();
    });
    Jitter jitter(round * 10 + kPosters + 1);
    jitter.Pass();
    machine->Run();
    EXPECT_FALSE(machine->IsRunning());
    Outcome sum;
    for (auto& poster : posters) {
      for (const auto& [event, answers] :
           poster.get()) {  // returns, because nobody waits for a stopped machine
        sum[event].taken += answers.taken;
        sum[event].refused += answers.refused;
      }
    }
    stopper.join();
    // Exactly the taken requests were done. Every state takes Close and Knock, none takes Ring.
    EXPECT_EQ(done["enter Open"], sum["Open"].taken);
    EXPECT_EQ(done["enter Closed"], 1 + sum["Close"].taken);
    EXPECT_EQ(done["knocked"], sum["Knock"].taken);
    EXPECT_LE(done["answer"], done["knocked"]);
    EXPECT_EQ(sum["Ring"].taken, 0);
    EXPECT_EQ(sum["Close"].refused + sum["Knock"].refused, 0);
    if (HasFailure()) {
      return;
    }
  }
}

TEST(Schedules, NoPeriodicCallRunsAfterCancelAndSync) {
  CWorker worker;
  std::atomic<int> late{0};
  std::atomic<int> made{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> users;
  for (unsigned user = 0; user < 3; ++user) {
    users.emplace_back([&, user] {
      Jitter jitter(user);
      for (int round = 0; round < 200 || !done; ++round) {
        const auto cancelled = std::make_shared<std::atomic<bool>>(false);
        const auto call = worker.AddCall(
            [&, cancelled] {
              late += *cancelled ? 1 : 0;
              ++made;
            },
            std::chrono::steady_clock::now() + microseconds(jitter.Below(100)),
            microseconds(20 + jitter.Below(100)));
        jitter.Pass();
        call->Cancel();
        worker.Sync();
        *cancelled = true;
      }
    });
  }
  Jitter jitter(3);
  for (int round = 0; round < 20; ++round) {
    worker.Start();
    for (unsigned pauses = jitter.Below(20); pauses > 0; --pauses) {
      jitter.Pass();
    }
    worker.Stop();  // which ends every Sync
  }
  worker.Start();
  EXPECT_TRUE(handover::Eventually([&] { return made > 0; }));
  done = true;
  for (auto& user : users) {
    user.join();
  }
  EXPECT_EQ(late, 0);
}
