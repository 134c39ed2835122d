#include "src/components/rfidconfig.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <vector>

#include "tests/components/says.h"
#include "tests/components/temporarystore.h"
#include "tests/framework/logcapture.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class RfidConfig : public ::testing::Test {
 protected:
  static CRfidConfig MakeConfig() {
    return {HubConfig::Create("settings", "/", {}), HubConfig::Create("rfid_standalone", "/", {})};
  }

  TemporaryStore mStore;
  LogCapture mLog;
  CRfidConfig mConfig = MakeConfig();
};

constexpr auto kNoUid = "Token has no member RfidTokenUid. Skipping...";
constexpr auto kNoText = "RfidTokenUid is not a text. Skipping...";

}  // namespace

TEST_F(RfidConfig, SwitchesFollowTheFileAtTheNextQuestion) {
  struct Case {
    const char* settings;
    bool ocpp;
    bool authorisation;
  };
  EXPECT_FALSE(mConfig.GetOcppStatus());
  EXPECT_TRUE(mConfig.GetAuthorizationEnabled());
  for (const auto& c :
       {Case{R"({"SeccOcppActive": true})", true, true},
        Case{R"({"SessionManagerChargeWithoutAuth": true, "Other": 1})", false, false},
        Case{R"({"SeccOcppActive": true, "SessionManagerChargeWithoutAuth": false})", true, true},
        Case{R"({"SeccOcppActive": "yes"})", false, true}, Case{"{}", false, true}}) {
    SCOPED_TRACE(c.settings);
    mStore.Write("settings", c.settings);
    mLog.Clear();
    EXPECT_EQ(mConfig.GetOcppStatus(), c.ocpp);
    EXPECT_EQ(mConfig.GetAuthorizationEnabled(), c.authorisation);
    EXPECT_THAT(
        mLog.Texts(Log::ELogLevel::Debug),
        ElementsAre(Says("Settings have been updated, reloading."),
                    Says(c.ocpp ? "OCPP Status: Active" : "OCPP Status: Inactive"),
                    Says(c.authorisation ? "Authorization enabled: true" : "Authorization enabled: false")));
  }
}

TEST_F(RfidConfig, OnlyListedCardsAreAccepted) {
  struct Case {
    const char* list;
    bool permitted;
    std::vector<::testing::Matcher<std::string>> warnings;
  };
  // Each list is asked twice: the first question also logs the warnings of the load.
  for (const auto& c : std::vector<Case>{
           {R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"}]})", true, {}},
           {R"({"Tokens": [{"RfidTokenUid": "11111111"}, {"RfidTokenUid": "0A1B2C3D", "Name": "x"}]})",
            true,
            {}},
           {R"({"Tokens": [{"Uid": 1}, {"RfidTokenUid": "0A1B2C3D"}, 1, {"RfidTokenUid": "0A1B2C3D"}]})",
            true,
            {Says(kNoUid)}},
           {R"({"Tokens": [[], {"RfidTokenUid": {}}, {"RfidTokenUid": "0A1B2C3D"}]})",
            true,
            {Says(kNoUid), Says(kNoText)}},
           {R"({"Tokens": ["0A1B2C3D", 7, null, ["0A1B2C3D"]]})",
            false,
            {Says(kNoUid), Says(kNoUid), Says(kNoUid), Says(kNoUid)}},
           {R"({"Tokens": [{"RfidTokenUid": "0a1b2c3d"}, {"RfidTokenUid": " 0A1B2C3D"}]})", false, {}},
           {R"({"Tokens": [{"RfidTokenUid": null}]})", false, {}},
           {R"({"Tokens": [{"RfidTokenUid": ["0A1B2C3D"]}]})", false, {Says(kNoText)}},
           {R"({"Tokens": {"RfidTokenUid": "0A1B2C3D"}})", false, {}},
           {R"({"Tokens": []})", false, {}},
           {R"({"Tokens": null})", false, {}},
           {R"({})", false, {}},
       }) {
    SCOPED_TRACE(c.list);
    mStore.Write("rfid_standalone", c.list);
    mLog.Clear();
    mConfig.AuthenticateToken("FFFFFFFF");
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Debug),
                ElementsAre(Says("Standalone list has been updated"),
                            Says("Checking standalone list for: FFFFFFFF")));
    mLog.Clear();
    EXPECT_EQ(mConfig.AuthenticateToken("0A1B2C3D"),
              c.permitted ? ipc::ERfidUidInStandAloneList : ipc::ERfidUidNotInList);
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Info),
                ElementsAre(Says(c.permitted ? "Found Match!" : "UID not in list.")));
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Warning), ::testing::ElementsAreArray(c.warnings));
  }
}

TEST_F(RfidConfig, AListThatIsNotAnArrayIsReportedAtEveryCard) {
  mStore.Write("rfid_standalone", R"({"Tokens": {"RfidTokenUid": "0A1B2C3D"}})");
  for (size_t cards = 1; cards < 3; ++cards) {
    mConfig.AuthenticateToken("0A1B2C3D");
    EXPECT_EQ(mLog.Texts(Log::ELogLevel::Error).size(), cards);
  }
}

TEST_F(RfidConfig, EveryUnusableEntryIsNamedOncePerLoad) {
  std::string many;
  for (int i = 0; i < 12; ++i) {
    many += R"({"RfidTokenUid": "short"},)";
  }
  struct Case {
    std::string list;
    std::vector<std::string> warnings;
  };
  constexpr auto kDigits = " and not 8 to 16 upper-case hexadecimal digits.";
  for (const auto& [list, warnings] : std::vector<Case>{
           {R"({"tokens": [{"RfidTokenUid": "0A1B2C3D"}]})",
            {"there is no \"Tokens\", so no card is let in."}},
           {R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"}, {"RfidTokenUid": "0a1b2c3d"}]})",
            {std::string("element 2 matches no card: RfidTokenUid is \"0a1b2c3d\"") + kDigits}},
           {R"({"Tokens": [{"RfidTokenUid": "0A1B2C 3D"}, {"RfidTokenUid": "0A1B2C3D4E5F6A7B8"}]})",
            {std::string("element 1 matches no card: RfidTokenUid is \"0A1B2C 3D\"") + kDigits,
             std::string("element 2 matches no card: RfidTokenUid is \"0A1B2C3D4E5F6A7B8\"") + kDigits}},
           {R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"}, {"RfidTokenUid": "0A1B2C3D4E5F6A7B"}]})", {}},
           {R"({"Tokens": []})", {}},
       }) {
    SCOPED_TRACE(list);
    mStore.Write("rfid_standalone", list);
    mLog.Clear();
    for (int card = 0; card < 3; ++card) {
      mConfig.AuthenticateToken("FFFFFFFF");
    }
    const auto logged = mLog.Texts(Log::ELogLevel::Warning);
    ASSERT_EQ(logged.size(), warnings.size());
    for (size_t i = 0; i < logged.size(); ++i) {
      EXPECT_THAT(logged[i], Says("Standalone list: " + warnings[i]));
    }
  }
  mStore.Write("rfid_standalone", R"({"Tokens": [)" + many + R"({"RfidTokenUid": "0A1B2C3D"}]})");
  mLog.Clear();
  mConfig.AuthenticateToken("FFFFFFFF");
  EXPECT_EQ(mLog.Texts(Log::ELogLevel::Warning).size(), 11U);
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Warning).back(),
              Says("Standalone list: 2 more elements match no card."));
}

TEST(StandaloneList, AcceptsAClientThatOnlyReturnsWholeValues) {
  struct ClientOfAnotherFramework {
    Json::Value list;
    Json::Value GetValue(const std::string&, const Json::Value&) const { return list; }
  };
  Json::Value element;
  element["RfidTokenUid"] = "0A1B2C3D";
  Json::Value tokens(Json::arrayValue);
  tokens.append(element);
  const CStandaloneList list(ClientOfAnotherFramework{tokens});
  EXPECT_TRUE(list.Find("0A1B2C3D").permitted);
  EXPECT_FALSE(list.Find("0A1B2C3E").permitted);
  EXPECT_EQ(CStandaloneList(ClientOfAnotherFramework{}).GetKind(), CStandaloneList::EKind::Missing);
}

TEST_F(RfidConfig, AListThatWasLoadedBeforeIsUsed) {
  mStore.Write("rfid_standalone", R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"}]})");
  const auto list = HubConfig::Create("rfid_standalone", "/", {});
  list->Reload();
  EXPECT_EQ(list->GetValue("Tokens", {}).size(), 1U);
  CRfidConfig config(HubConfig::Create("settings", "/", {}), list);
  EXPECT_EQ(config.AuthenticateToken("0A1B2C3D"), ipc::ERfidUidInStandAloneList);
}

TEST_F(RfidConfig, AListThatWasNeverGoodIsReportedAtEveryCard) {
  mStore.Write("rfid_standalone", R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"})");
  for (int card = 0; card < 3; ++card) {
    mLog.Clear();
    EXPECT_EQ(mConfig.AuthenticateToken("0A1B2C3D"), ipc::ERfidUidNotInList);
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error),
                ElementsAre(testing::AllOf(HasSubstr("rfid_standalone.json"), HasSubstr("cannot be used"))));
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Warning), testing::IsEmpty());
  }
  mStore.Write("rfid_standalone", R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"}]})");
  mLog.Clear();
  EXPECT_EQ(mConfig.AuthenticateToken("0A1B2C3D"), ipc::ERfidUidInStandAloneList);
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error), testing::IsEmpty());
}

TEST_F(RfidConfig, AListOfAHundredThousandCardsIsUsed) {
  std::string text = R"({"Tokens":[)";
  for (unsigned i = 0; i < 100000; ++i) {
    text += fmt::format(R"({}{{"RfidTokenUid":"04{:012X}"}})", i == 0 ? "" : ",", i * 2654435761U);
  }
  mStore.Write("rfid_standalone", text + "]}");
  EXPECT_EQ(mConfig.AuthenticateToken(fmt::format("04{:012X}", 99999U * 2654435761U)),
            ipc::ERfidUidInStandAloneList);
  EXPECT_EQ(mConfig.AuthenticateToken("04A00000000000"), ipc::ERfidUidNotInList);
}

TEST_F(RfidConfig, ABrokenListKeepsTheLastGoodOneAndIsReadOnce) {
  mStore.Write("rfid_standalone", R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"}]})");
  EXPECT_EQ(mConfig.AuthenticateToken("0A1B2C3D"), ipc::ERfidUidInStandAloneList);
  mStore.Write("rfid_standalone", R"({"Tokens": [)");
  EXPECT_EQ(mConfig.AuthenticateToken("0A1B2C3D"), ipc::ERfidUidInStandAloneList);
  EXPECT_EQ(mLog.Texts(Log::ELogLevel::Error).size(), 1U);
  mLog.Clear();
  EXPECT_EQ(mConfig.AuthenticateToken("0A1B2C3D"), ipc::ERfidUidInStandAloneList);
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Debug), Not(Contains(Says("Standalone list has been updated"))));
}
