#include "tools/virtual-station/benchmodel.h"

#include <algorithm>
#include <utility>

#include "tools/common/output.h"
#include "tools/common/texts.h"

namespace {

constexpr std::size_t kMostCards = 40;
constexpr std::size_t kMostEvents = 20;
constexpr std::size_t kMostLines = 300;
constexpr auto kPatience = std::chrono::seconds(5);

constexpr const char* kWaiting = "waiting";
constexpr const char* kUnanswered = "unanswered";

std::string TimeOfDay() {
  return TimeForPeople().substr(11);
}

template <typename Value>
void KeepLatest(std::deque<Value>& values, std::size_t most) {
  while (values.size() > most) {
    values.pop_front();
  }
}

Json::Value ToArray(const std::deque<Json::Value>& values) {
  Json::Value array(Json::arrayValue);
  for (const auto& value : values) {
    array.append(value);
  }
  return array;
}

// proto3 keeps unknown enum values, so any number may come.
std::string OutcomeOf(ipc::ERfidAuthState state) {
  static const std::map<int, std::string> kOutcomes{{ipc::ERfidUidInStandAloneList, "accepted"},
                                                    {ipc::ERfidAuthDeferred, "deferred"},
                                                    {ipc::ERfidUidNotInList, "rejected"},
                                                    {ipc::ERfidUidInvalid, "invalid"}};
  const auto outcome = kOutcomes.find(state);
  return outcome == kOutcomes.end() ? "state " + std::to_string(static_cast<int>(state)) : outcome->second;
}

std::string NameOf(ipc::EFbEventType event) {
  static const std::map<int, std::string> kNames{{ipc::EFbAuthAccepted, "accepted"},
                                                 {ipc::EFbAuthRejected, "rejected"},
                                                 {ipc::EFbTokenScanned, "scanned"}};
  const auto name = kNames.find(event);
  return name == kNames.end() ? "event " + std::to_string(static_cast<int>(event)) : name->second;
}

std::string ToUpper(std::string text) {
  for (char& c : text) {
    c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  }
  return text;
}

}  // namespace

void BenchModel::OnStreamOpen(EStream stream) {
  const std::lock_guard lock(mMutex);
  mOpen.insert(stream);
  ++mRevision;
}

void BenchModel::OnStreamEnd(EStream stream, const std::string& reason) {
  const std::lock_guard lock(mMutex);
  mOpen.erase(stream);
  mReason = reason;
  if (stream == EStream::States && !mState.empty()) {
    NoteTransition("");
  }
  // A daemon that comes back has forgotten the learning mode and the cards.
  mParts["learning"] = false;
  for (Card& card : mCards) {
    card.outcome = card.outcome == kWaiting ? kUnanswered : card.outcome;
  }
  ++mRevision;
}

void BenchModel::OnState(const std::string& state) {
  const std::lock_guard lock(mMutex);
  if (state != mState) {
    NoteTransition(state);
    ++mRevision;
  }
}

void BenchModel::NoteTransition(const std::string& to) {
  Json::Value transition;
  transition["number"] = static_cast<Json::UInt64>(++mNumber);
  transition["time"] = TimeOfDay();
  transition["from"] = std::exchange(mState, to);
  transition["to"] = to;
  mTransitions.push_back(std::move(transition));
  KeepLatest(mTransitions, kMostEvents);
}

void BenchModel::OnAlive() {
  const std::lock_guard lock(mMutex);
  ++mAlive;
  mAliveTime = TimeOfDay();
  ++mRevision;
}

void BenchModel::OnToken(const ipc::MRfidToken& token) {
  const std::lock_guard lock(mMutex);
  Conclude(token.uid(), OutcomeOf(token.auth_state()));
}

void BenchModel::OnLearningToken(const std::string& uid) {
  const std::lock_guard lock(mMutex);
  Conclude(uid, "learned");
}

BenchModel::Card* BenchModel::FindWaiting(const std::function<bool(const Card&)>& matches) {
  const auto card = std::find_if(mCards.rbegin(), mCards.rend(), [&](const Card& candidate) {
    return candidate.outcome == kWaiting && matches(candidate);
  });
  return card == mCards.rend() ? nullptr : &*card;
}

void BenchModel::Conclude(const std::string& uid, const std::string& outcome) {
  // The outcome of a FeliCa tag comes without a UID, because the reader reports none.
  Card* const card = FindWaiting([&](const Card& candidate) {
    return ToUpper(candidate.uid) == uid || (uid.empty() && candidate.kind == "felica");
  });
  if (card != nullptr) {
    card->outcome = outcome;
  } else {
    mCards.push_back({++mNumber, TimeOfDay(), uid, "", "seen", outcome, {}});
    KeepLatest(mCards, kMostCards);
  }
  ++mRevision;
}

void BenchModel::OnFeedback(ipc::EFbEventType event) {
  const std::lock_guard lock(mMutex);
  Json::Value entry;
  entry["number"] = static_cast<Json::UInt64>(++mNumber);
  entry["time"] = TimeOfDay();
  entry["event"] = NameOf(event);
  mFeedback.push_back(std::move(entry));
  KeepLatest(mFeedback, kMostEvents);
  // While charging is free, the daemon only reports that a card was scanned.
  if (event == ipc::EFbTokenScanned && mParts["settings"]["free"].asBool() && !mParts["learning"].asBool()) {
    if (Card* const card = FindWaiting([](const Card&) { return true; })) {
      card->outcome = "free";
    }
  }
  ++mRevision;
}

void BenchModel::OnSignal(const ipc::MSignal& signal) {
  const std::lock_guard lock(mMutex);
  Json::Value& entry = mSignals[signal.id()];
  entry = SignalJson(signal);
  entry["time"] = TimeOfDay();
  ++mRevision;
}

std::uint64_t BenchModel::OnCardPresented(const std::string& uid, const std::string& kind, TimePoint now) {
  const std::lock_guard lock(mMutex);
  mCards.push_back({++mNumber, TimeOfDay(), uid, kind, kind.empty() ? "injected" : "tapped", kWaiting, now});
  KeepLatest(mCards, kMostCards);
  ++mRevision;
  return mNumber;
}

void BenchModel::Withdraw(std::uint64_t card) {
  const std::lock_guard lock(mMutex);
  std::erase_if(mCards, [card](const Card& candidate) {
    return candidate.number == card && candidate.outcome == kWaiting;
  });
  ++mRevision;
}

void BenchModel::GiveUpWaiting(TimePoint now) {
  const std::lock_guard lock(mMutex);
  for (Card& card : mCards) {
    if (card.outcome == kWaiting && now - card.since > kPatience) {
      card.outcome = kUnanswered;
      ++mRevision;
    }
  }
}

void BenchModel::OnLogLines(const std::vector<std::string>& lines) {
  const std::lock_guard lock(mMutex);
  mLines.insert(mLines.end(), lines.begin(), lines.end());
  mLineCount += lines.size();
  KeepLatest(mLines, kMostLines);
}

void BenchModel::Set(const char* part, const Json::Value& value) {
  const std::lock_guard lock(mMutex);
  if (mParts[part] != value) {
    mParts[part] = value;
    ++mRevision;
  }
}

Json::Value BenchModel::Snapshot() const {
  Json::Value snapshot = mParts;
  const bool there = mOpen.size() == 2 && !mState.empty();
  snapshot["there"] = there;
  snapshot["reason"] = there ? "" : mReason;
  snapshot["state"] = mState;
  snapshot["transitions"] = ToArray(mTransitions);
  snapshot["feedback"] = ToArray(mFeedback);
  snapshot["alive"]["count"] = static_cast<Json::UInt64>(mAlive);
  snapshot["alive"]["time"] = mAliveTime;
  snapshot["signals"] = Json::Value(Json::arrayValue);
  for (const auto& [id, signal] : mSignals) {
    snapshot["signals"].append(signal);
  }
  snapshot["cards"] = Json::Value(Json::arrayValue);
  for (const Card& card : mCards) {
    Json::Value entry;
    entry["number"] = static_cast<Json::UInt64>(card.number);
    entry["time"] = card.time;
    entry["uid"] = card.uid;
    entry["kind"] = card.kind;
    entry["how"] = card.how;
    entry["outcome"] = card.outcome;
    snapshot["cards"].append(std::move(entry));
  }
  return snapshot;
}

Json::Value BenchModel::NewsSince(std::uint64_t revision, std::uint64_t line) const {
  const std::lock_guard lock(mMutex);
  Json::Value news;
  news["revision"] = static_cast<Json::UInt64>(mRevision);
  news["line"] = static_cast<Json::UInt64>(mLineCount);
  if (revision != mRevision) {
    news["snapshot"] = Snapshot();
  }
  const auto unread =
      line > mLineCount ? mLines.size() : std::min<std::uint64_t>(mLineCount - line, mLines.size());
  news["lines"] = Json::arrayValue;
  for (auto one = mLines.end() - static_cast<std::ptrdiff_t>(unread); one != mLines.end(); ++one) {
    news["lines"].append(*one);
  }
  return news;
}
