#include "tools/virtual-station/benchmodel.h"

#include <map>
#include <utility>

#include "tools/common/output.h"
#include "tools/common/texts.h"
#include "tools/virtual-station/configuration.h"

namespace {

constexpr Json::ArrayIndex kMostEntries = 40;
constexpr std::chrono::milliseconds kPatience(5000);

constexpr const char* kWaiting = "waiting";
constexpr const char* kUnanswered = "unanswered";

std::string TimeOfDay() {
  return TimeForPeople().substr(11);
}

Json::Int64 Milliseconds(BenchModel::TimePoint time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
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

}  // namespace

BenchModel::BenchModel() {
  mPage["reason"] = "not reached yet";
  mPage["state"] = "";
  mPage["alive"]["count"] = 0;
  mPage["learning"] = false;
  for (const char* list : {"transitions", "feedback", "cards"}) {
    mPage[list] = Json::arrayValue;
  }
  mPage["signals"] = Json::objectValue;
}

void BenchModel::Change() {
  ++mRevision;
  mPage["there"] = mOpen.size() == 2 && !mPage["state"].asString().empty();
}

void BenchModel::Append(const char* list, Json::Value entry) {
  entry["number"] = static_cast<Json::UInt64>(++mNumber);
  entry["time"] = TimeOfDay();
  mPage[list].append(std::move(entry));
  if (Json::Value ignored; mPage[list].size() > kMostEntries) {
    mPage[list].removeIndex(0, &ignored);
  }
  Change();
}

void BenchModel::OnStreamOpen(EStream stream) {
  const std::lock_guard lock(mMutex);
  mOpen.insert(stream);
  Change();
}

void BenchModel::OnStreamEnd(EStream stream, const std::string& reason) {
  const std::lock_guard lock(mMutex);
  mOpen.erase(stream);
  mPage["reason"] = reason;
  if (stream == EStream::States && !mPage["state"].asString().empty()) {
    AppendTransition("");
  }
  // A daemon that comes back has forgotten the learning mode and the cards.
  mPage["learning"] = false;
  for (Json::Value& card : mPage["cards"]) {
    if (card["outcome"] == kWaiting) {
      card["outcome"] = kUnanswered;
    }
  }
  Change();
}

void BenchModel::OnState(const std::string& state) {
  const std::lock_guard lock(mMutex);
  if (mPage["state"] != state) {
    AppendTransition(state);
  }
}

void BenchModel::AppendTransition(const std::string& to) {
  Json::Value transition;
  transition["from"] = std::exchange(mPage["state"], to);
  transition["to"] = to;
  Append("transitions", std::move(transition));
}

void BenchModel::OnAlive() {
  const std::lock_guard lock(mMutex);
  mPage["alive"]["count"] = mPage["alive"]["count"].asUInt64() + 1;
  mPage["alive"]["time"] = TimeOfDay();
  Change();
}

void BenchModel::OnToken(const ipc::MRfidToken& token) {
  Conclude(OutcomeOf(token.auth_state()), token.uid());
}

void BenchModel::OnLearningToken(const std::string& uid) {
  Conclude("learned", uid);
}

bool BenchModel::Conclude(const std::string& outcome,
                          const std::function<bool(const Json::Value& card)>& matches) {
  Json::Value& cards = mPage["cards"];
  for (Json::ArrayIndex i = cards.size(); i-- > 0;) {
    if (cards[i]["outcome"] == kWaiting && matches(cards[i])) {
      cards[i]["outcome"] = outcome;
      Change();
      return true;
    }
  }
  return false;
}

void BenchModel::Conclude(const std::string& outcome, const std::string& uid) {
  const std::lock_guard lock(mMutex);
  // The outcome of a FeliCa tag comes without a UID, because the reader reports none.
  const auto matches = [&uid](const Json::Value& card) {
    return ToUpper(card["uid"].asString()) == uid || (uid.empty() && card["kind"] == "felica");
  };
  if (!Conclude(outcome, matches)) {
    Json::Value card;
    card["uid"] = uid;
    card["how"] = "seen";
    card["outcome"] = outcome;
    Append("cards", std::move(card));
  }
}

void BenchModel::OnFeedback(ipc::EFbEventType event) {
  const std::lock_guard lock(mMutex);
  Json::Value entry;
  entry["event"] = NameOf(event);
  Append("feedback", std::move(entry));
  // While charging is free, the daemon only reports that a card was scanned.
  if (event == ipc::EFbTokenScanned && mPage["settings"]["free"].asBool() && !mPage["learning"].asBool()) {
    Conclude("free", [](const Json::Value&) { return true; });
  }
}

void BenchModel::OnSignal(const ipc::MSignal& signal) {
  const std::lock_guard lock(mMutex);
  Json::Value& entry = mPage["signals"][std::to_string(signal.id())];
  entry = SignalJson(signal);
  entry["time"] = TimeOfDay();
  Change();
}

std::uint64_t BenchModel::OnCardPresented(const std::string& uid, const std::string& kind, TimePoint now) {
  const std::lock_guard lock(mMutex);
  Json::Value card;
  card["uid"] = uid;
  card["kind"] = kind;
  card["how"] = kind.empty() ? "injected" : "tapped";
  card["outcome"] = kWaiting;
  card["since"] = Milliseconds(now);
  Append("cards", std::move(card));
  return mNumber;
}

void BenchModel::Withdraw(std::uint64_t number) {
  const std::lock_guard lock(mMutex);
  Json::Value others(Json::arrayValue);
  for (const Json::Value& card : mPage["cards"]) {
    if (card["number"].asUInt64() != number || card["outcome"] != kWaiting) {
      others.append(card);
    }
  }
  mPage["cards"] = others;
  Change();
}

void BenchModel::GiveUpWaiting(TimePoint now) {
  const std::lock_guard lock(mMutex);
  for (Json::Value& card : mPage["cards"]) {
    if (card["outcome"] == kWaiting && Milliseconds(now) - card["since"].asInt64() > kPatience.count()) {
      card["outcome"] = kUnanswered;
      Change();
    }
  }
}

void BenchModel::Set(const char* part, const Json::Value& value) {
  const std::lock_guard lock(mMutex);
  if (mPage[part] != value) {
    mPage[part] = value;
    Change();
  }
}

Json::Value BenchModel::NewsSince(std::uint64_t revision) const {
  const std::lock_guard lock(mMutex);
  Json::Value news;
  news["revision"] = static_cast<Json::UInt64>(mRevision);
  if (revision != mRevision) {
    news["snapshot"] = mPage;
  }
  return news;
}
