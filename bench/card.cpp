#include <fmt/format.h>
#include <sched.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <system_error>
#include <thread>

#include "cardsubject.h"
#include "measures.h"
#include "measuring.h"

namespace bench {

namespace {

constexpr int kWarmUps = 20;
/// After this pause the previous card has no effect: the reader polls again, and the diagnostics are sent.
constexpr std::chrono::milliseconds kGap(60);

std::string Uid(int card) {
  return fmt::format("{:08X}", 0x10000000 + card * 7919);
}

/// The median time from the kernel's event to each mark.
std::vector<double> MedianPassage(const std::vector<Passage>& passages) {
  std::vector<double> medians;
  for (std::size_t mark = 0; mark < kMarks; ++mark) {
    std::vector<double> times;
    times.reserve(passages.size());
    for (const Passage& passage : passages) {
      times.push_back(passage[mark]);
    }
    medians.push_back(Median(times));
  }
  return medians;
}

struct Subject {
  const char* name;
  std::unique_ptr<CardSubject> station;
  std::vector<Passage> passages{};
  double cpu = 0;

  double Cpu() const { return CpuMicroseconds(station->Program().GetPid()); }
};

/// Presents each card to every subject in turn.
void Tap(std::vector<Subject>& subjects, int cards) {
  for (int card = -kWarmUps; card < cards; ++card) {
    for (Subject& subject : subjects) {
      if (card == 0) {
        subject.cpu = subject.Cpu();
      }
      const Passage passage = subject.station->Tap(Uid(card));
      std::this_thread::sleep_for(kGap);
      if (card >= 0) {
        subject.passages.push_back(passage);
      }
    }
  }
  for (Subject& subject : subjects) {
    subject.cpu = (subject.Cpu() - subject.cpu) / cards;
  }
}

Run Measure(const Plan& plan, const std::string& name, double wanted) {
  std::vector<Subject> subjects;
  subjects.push_back({"rfidd", std::make_unique<CardSubject>(Daemon())});
  subjects.push_back({"the same trips", std::make_unique<CardSubject>()});
  if (!plan.before.empty()) {
    subjects.push_back({"rfidd before", std::make_unique<CardSubject>(plan.before)});
  }
  Tap(subjects, plan.Count(200, 3));
  Run run;
  const auto ours = MedianPassage(subjects.front().passages);
  for (const Subject& subject : subjects) {
    const auto theirs = MedianPassage(subject.passages);
    for (std::size_t mark = 0; mark < kMarks; ++mark) {
      run.curves[name + " " + subject.name].emplace_back(static_cast<double>(mark), theirs[mark]);
    }
    if (&subject != &subjects.front()) {
      const double ratio = &subject == &subjects[1] ? wanted : 0;
      run.rows.push_back(
          {name + ": found to notification", "us", ours.back(), subject.name, theirs.back(), ratio});
      run.rows.push_back({name + ": CPU time, with the pause after it", "us", subjects.front().cpu,
                          subject.name, subject.cpu});
    }
  }
  return run;
}

}  // namespace

Run MeasureCard(const Plan& plan) {
  return Measure(plan, "card", 1.15);
}

Run MeasureCardOnOneCore(const Plan& plan) {
  cpu_set_t first;
  CPU_ZERO(&first);
  CPU_SET(0, &first);
  if (sched_setaffinity(0, sizeof first, &first) != 0) {  // threads and processes that start later inherit it
    throw std::system_error(errno, std::generic_category(), "sched_setaffinity");
  }
  return Measure(plan, "card on one core", 1.3);
}

}  // namespace bench
