#include "tools/soak/ledger.h"

#include <fmt/format.h>

#include <numeric>

namespace {

constexpr std::array<const char*, kOutcomeCount> Names{
    "notified",
    "suppressed: seen again within two seconds",
    "withheld: charging is free",
    "refused: not enabled",
    "lost: not enabled",
    "lost: an error was reported",
    "lost: no reader, reported",
    "lost: the event was lost, the next look at polling cures it",
    "unexplained"};

}  // namespace

size_t Ledger::Outcomes() const {
  return std::accumulate(mOutcomes.begin(), mOutcomes.end(), size_t{0});
}

bool Ledger::AddsUp() const {
  return mProblems.empty() && Outcomes() == mSent && Count(EOutcome::Unexplained) == 0 &&
         Count(EOutcome::Notified) == mNotifications && mLogged == mNotifications;
}

std::string Ledger::Line() const {
  return fmt::format(
      "{} swipes: {} notified, {} suppressed, {} withheld, {} refused, {} lost, {} unexplained", mSent,
      Count(EOutcome::Notified), Count(EOutcome::Suppressed), Count(EOutcome::Withheld),
      Count(EOutcome::Refused),
      Count(EOutcome::LostDisabled) + Count(EOutcome::LostError) + Count(EOutcome::LostUnplugged) +
          Count(EOutcome::LostUnheard),
      Count(EOutcome::Unexplained));
}

std::string Ledger::Report() const {
  std::string report = fmt::format("{:>8} swipes sent\n", mSent);
  for (size_t i = 0; i < kOutcomeCount; ++i) {
    report += fmt::format("{:>8}   {}\n", mOutcomes[i], Names[i]);
  }
  report += fmt::format("{:>8} notifications of them received, {} sent by the daemon's own log\n",
                        mNotifications, mLogged);
  for (const auto& problem : mProblems) {
    report += "problem: " + problem + "\n";
  }
  return report + (AddsUp() ? "All of it adds up.\n" : "It does not add up.\n");
}
