#include "tools/soak/ledger.h"

#include <fmt/format.h>

#include <numeric>

namespace {

constexpr std::array<const char*, kOutcomeCount> kNames{
    "notified",
    "suppressed: seen again within two seconds",
    "withheld: charging is free",
    "refused: not enabled",
    "lost: not enabled",
    "lost: an error was reported",
    "lost: no reader, reported",
    "lost: the event was lost, the next check of polling cures it",
    "unexplained"};

}  // namespace

bool Ledger::AddsUp() const {
  const auto outcomes = std::accumulate(mOutcomes.begin(), mOutcomes.end(), size_t{0});
  return mProblems.empty() && outcomes == mSent && Count(EOutcome::Unexplained) == 0 &&
         Count(EOutcome::Notified) == mNotifications && mLogged == mNotifications;
}

std::string Ledger::Line() const {
  return fmt::format("{} swipes, {} notified, {} unexplained", mSent, Count(EOutcome::Notified),
                     Count(EOutcome::Unexplained));
}

std::string Ledger::Report() const {
  std::string report = fmt::format("{:>8} swipes sent\n", mSent);
  for (size_t i = 0; i < kOutcomeCount; ++i) {
    report += fmt::format("{:>8}   {}\n", mOutcomes[i], kNames[i]);
  }
  report += fmt::format("{:>8} notifications of them received, {} sent by the daemon's own log\n",
                        mNotifications, mLogged);
  for (const auto& problem : mProblems) {
    report += "problem: " + problem + "\n";
  }
  return report + (AddsUp() ? "All of it adds up.\n" : "It does not add up.\n");
}
