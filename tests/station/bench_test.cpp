#include <gmock/gmock.h>
#include <httplib.h>
#include <json/json.h>

#include <algorithm>
#include <sstream>

#include "src/components/rfidhsm.h"
#include "tools/virtual-station/benchmodel.h"
#include "tools/virtual-station/benchserver.h"

using ::testing::ElementsAre;

namespace {

const BenchModel::TimePoint kNow{};

std::vector<std::string> Outcomes(const BenchModel& model) {
  const Json::Value news = model.NewsSince(0);
  std::vector<std::string> outcomes;
  for (const auto& card : news["snapshot"]["cards"]) {
    outcomes.push_back(card["uid"].asString() + " " + card["outcome"].asString());
  }
  return outcomes;
}

void Report(BenchModel& model, const std::string& uid, ipc::ERfidAuthState state) {
  ipc::MRfidToken token;
  token.set_uid(uid);
  token.set_auth_state(state);
  model.OnToken(token);
}

bool Is(const BenchModel& model, const char* what) {
  return model.NewsSince(0)["snapshot"][what].asBool();
}

/// A server that stores its requests.
class Server : public ::testing::Test {
 protected:
  /// The status of the answer. The server closes a connection that is silent for a second. If this process
  /// was not scheduled in time to send, it asks again.
  template <typename Request>
  int Ask(const Request& request) {
    for (int attempt = 0; attempt < 3; ++attempt) {
      httplib::Client client(mUrl);
      client.set_read_timeout(std::chrono::minutes(2));
      if (const auto result = request(client)) {
        return result->status;
      }
    }
    return 0;
  }

  int Do(const httplib::Headers& headers, const std::string& body = R"({"do": "enable"})") {
    return Ask([&](auto& client) { return client.Post("/do", headers, body, "application/json"); });
  }

  BenchModel mModel;
  std::vector<Json::Value> mRequests;
  BenchServer mServer{mModel,
                      [this](const Json::Value& request) {
                        mRequests.push_back(request);
                        return BenchAnswer{true, "done"};
                      },
                      0};
  const std::string mUrl = mServer.Url().substr(0, mServer.Url().size() - 1);
  const std::string mHost = mUrl.substr(7);
};

}  // namespace

TEST(BenchModel, EveryCardThatWaitsGetsItsOwnOutcome) {
  BenchModel model;
  model.OnCardPresented("04a12b5c", "mifare", kNow);
  model.OnCardPresented("0102030405060708", "felica", kNow);
  model.OnCardPresented("11223344", "mifare", kNow);
  model.Withdraw(model.OnCardPresented("55667788", "mifare", kNow));
  Report(model, "", ipc::ERfidUidInvalid);  // a FeliCa card has no UID for the daemon
  Report(model, "04A12B5C", ipc::ERfidUidInStandAloneList);
  Report(model, "99AABBCC", static_cast<ipc::ERfidAuthState>(77));  // of somebody else, by a newer daemon
  model.GiveUpWaiting(kNow + std::chrono::seconds(5));
  EXPECT_THAT(Outcomes(model), ElementsAre("04a12b5c accepted", "0102030405060708 invalid",
                                           "11223344 waiting", "99AABBCC state 77"));
  model.GiveUpWaiting(kNow + std::chrono::seconds(6));
  model.OnCardPresented("11223344", "mifare", kNow);
  model.OnLearningToken("11223344");
  EXPECT_THAT(Outcomes(model), ElementsAre("04a12b5c accepted", "0102030405060708 invalid",
                                           "11223344 unanswered", "99AABBCC state 77", "11223344 learned"));
}

TEST(BenchModel, AnOutcomeBelongsToTheNewestCard) {
  BenchModel model;
  model.OnCardPresented("11223344", "mifare", kNow);
  Report(model, "11223344", ipc::ERfidUidNotInList);
  model.OnCardPresented("11223344", "mifare", kNow);  // suppressed: seen again within two seconds
  model.OnCardPresented("11223344", "mifare", kNow);
  Report(model, "11223344", ipc::ERfidUidInStandAloneList);
  EXPECT_THAT(Outcomes(model), ElementsAre("11223344 rejected", "11223344 waiting", "11223344 accepted"));
}

TEST(BenchModel, ACardThatIsOnlyScannedIsAnsweredWhileChargingIsFree) {
  BenchModel model;
  Json::Value settings;
  settings["free"] = true;
  model.Set("settings", settings);
  model.OnCardPresented("11223344", "mifare", kNow);
  model.OnFeedback(ipc::EFbTokenScanned);
  EXPECT_THAT(Outcomes(model), ElementsAre("11223344 free"));
}

TEST(BenchModel, TheDaemonIsThereWhileBothStreamsAreOpen) {
  BenchModel model;
  model.OnStreamOpen(BenchModel::EStream::States);
  model.OnState("Enabled");
  EXPECT_FALSE(Is(model, "there"));
  model.OnStreamOpen(BenchModel::EStream::Cards);
  EXPECT_TRUE(Is(model, "there"));
  model.OnCardPresented("11223344", "mifare", kNow);
  model.Set("learning", true);
  model.OnStreamEnd(BenchModel::EStream::Cards, "Socket closed");
  EXPECT_FALSE(Is(model, "there"));
  EXPECT_FALSE(Is(model, "learning"));
  EXPECT_THAT(Outcomes(model), ElementsAre("11223344 unanswered"));
}

TEST(BenchModel, APageGetsWhatIsNewToIt) {
  BenchModel model;
  model.Set("log", "old");
  const auto revision = model.NewsSince(0)["revision"].asUInt64();
  model.Set("log", "old");
  EXPECT_FALSE(model.NewsSince(revision).isMember("snapshot"));
  model.Set("log", "new");
  EXPECT_EQ(model.NewsSince(revision)["snapshot"]["log"], "new");
}

TEST(BenchPage, EveryStateHasItsPlaceInTheDiagram) {
  const auto files = PageFiles();
  const auto file =
      std::find_if(files.begin(), files.end(), [](const PageFile& one) { return one.path == "/layout.js"; });
  ASSERT_NE(file, files.end());
  const std::string text(file->content.substr(file->content.find('{')));
  Json::Value layout;
  std::istringstream(text) >> layout;
  std::vector<std::string> states{"Start", "AnyState"};
  for (const auto& leaf : CRfidHsm::Definition().leaves) {
    states.emplace_back(leaf.name);
  }
  EXPECT_THAT(layout["at"].getMemberNames(), ::testing::UnorderedElementsAreArray(states));
}

TEST_F(Server, TakesRequestsFromItsOwnPageAndFromNoOther) {
  const struct {
    const char* what;
    httplib::Headers headers;
    int status;
  } cases[] = {
      {"its own page", {{"Origin", mUrl}, {"X-Bench", "1"}}, 200},
      {"a script", {{"X-Bench", "1"}}, 200},
      {"a form of another page", {{"Origin", "http://elsewhere.example"}}, 403},
      {"another page", {{"Origin", "http://elsewhere.example"}, {"X-Bench", "1"}}, 403},
      {"another port", {{"Origin", "http://127.0.0.1:1"}, {"X-Bench", "1"}}, 403},
      {"another scheme", {{"Origin", "https://" + mHost}, {"X-Bench", "1"}}, 403},
      {"a sandboxed page", {{"Origin", "null"}, {"X-Bench", "1"}}, 403},
      {"no header", {{"Origin", mUrl}}, 403},
      {"another name for this address", {{"Host", "elsewhere.example"}, {"X-Bench", "1"}}, 403},
      {"that name with the port", {{"Host", "elsewhere.example:" + mHost.substr(10)}, {"X-Bench", "1"}}, 403},
  };
  std::size_t taken = 0;
  for (const auto& one : cases) {
    EXPECT_EQ(Do(one.headers), one.status) << one.what;
    taken += one.status == 200 ? 1 : 0;
  }
  EXPECT_EQ(mRequests.size(), taken);
  for (const char* path : {"/", "/page.js", "/news"}) {
    EXPECT_EQ(Ask([&](auto& client) {
                return client.Get(path, {{"Host", "elsewhere.example"}});
              }),
              403)
        << path;
  }
}

TEST_F(Server, RefusesMalformedRequests) {
  const httplib::Headers header{{"X-Bench", "1"}};
  EXPECT_EQ(Do(header, "{\"do\": "), 400);
  EXPECT_EQ(Do(header, "[]"), 400);
  EXPECT_EQ(Do(header, std::string(3000, '[')), 400);
  EXPECT_EQ(Do(header, std::string(5000, ' ')), 413);
  EXPECT_TRUE(mRequests.empty());
}

TEST_F(Server, RefusesAPortThatIsInUse) {
  const int port = std::stoi(mHost.substr(10));
  EXPECT_THROW(BenchServer(mModel, {}, port), std::runtime_error);
}
