#pragma once

#include <array>
#include <string>
#include <vector>

/// The outcome of a swipe: a card held to the reader, or a request to simulate one.
enum class EOutcome {
  Notified,       ///< as a token or a learning token
  Suppressed,     ///< the card was seen less than two seconds before
  Withheld,       ///< charging is free, cards are not notified
  Refused,        ///< the request was answered Illegal: the daemon is not enabled
  LostDisabled,   ///< the reader was off, or was being switched off
  LostError,      ///< the supervisor was told of an error
  LostUnplugged,  ///< there was no reader; the supervisor was told
  LostUnheard,    ///< the kernel's event was lost, and the card was gone at the next check of polling
  Unexplained
};
constexpr size_t kOutcomeCount = 9;

/// Counts swipes and notifications, and whether they match.
class Ledger {
 public:
  void Enter(EOutcome outcome) { ++mOutcomes[static_cast<size_t>(outcome)]; }
  void EnterSent() { ++mSent; }
  void EnterNotification() { ++mNotifications; }
  void EnterLogged(size_t count) { mLogged += count; }

  /// Notes something that must not happen.
  void AddProblem(const std::string& what) { mProblems.push_back(what); }

  bool HasNoProblem() const { return mProblems.empty(); }

  /// True when every swipe has one outcome, every notification has one swipe, and no problem was noted.
  bool AddsUp() const;

  std::string Line() const;    ///< the progress
  std::string Report() const;  ///< the result

 private:
  size_t Count(EOutcome outcome) const { return mOutcomes[static_cast<size_t>(outcome)]; }

  std::array<size_t, kOutcomeCount> mOutcomes{};
  size_t mSent = 0;
  size_t mNotifications = 0;  ///< received by the supervisor
  size_t mLogged = 0;         ///< sent, by the daemon's own log
  std::vector<std::string> mProblems;
};
