#pragma once

#include <array>
#include <string>
#include <vector>

/// What became of a swipe: a card put to the reader, or the request to simulate one.
enum class EOutcome {
  Notified,       ///< as a token or a learning token
  Suppressed,     ///< seen within the last two seconds before
  Withheld,       ///< charging is free, cards are not notified
  Refused,        ///< the request was answered Illegal: the daemon is not enabled
  LostDisabled,   ///< the reader was off, or was switched off meanwhile
  LostError,      ///< the supervisor was told of an error
  LostUnplugged,  ///< there was no reader; the supervisor was told
  LostUnheard,    ///< the kernel's event was lost without a sign, and the card went before the next look
  Unexplained
};
constexpr size_t kOutcomeCount = 9;

/// The book of swipes and notifications.
class Ledger {
 public:
  void Enter(EOutcome outcome) { ++mOutcomes[static_cast<size_t>(outcome)]; }
  void EnterSent() { ++mSent; }
  void EnterNotification() { ++mNotifications; }
  void EnterLogged(size_t count) { mLogged += count; }

  /// Something that must not be.
  void AddProblem(const std::string& what) { mProblems.push_back(what); }

  bool HasNoProblem() const { return mProblems.empty(); }

  /// Every swipe has one outcome, every notification one swipe, and there was no problem.
  bool AddsUp() const;

  std::string Line() const;    ///< for people who wait
  std::string Report() const;  ///< at the end

 private:
  size_t Count(EOutcome outcome) const { return mOutcomes[static_cast<size_t>(outcome)]; }
  size_t Outcomes() const;

  std::array<size_t, kOutcomeCount> mOutcomes{};
  size_t mSent = 0;
  size_t mNotifications = 0;  ///< that came to the supervisor
  size_t mLogged = 0;         ///< that the daemon says in its log to have sent
  std::vector<std::string> mProblems;
};
