#include "src/components/rfidconfig.h"

#include <gmock/gmock.h>

#include "framework/logcapture.h"
#include "temporarystore.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::Not;

namespace {

class RfidConfig : public ::testing::Test {
 protected:
  TemporaryStore mStore;
  LogCapture mLog;
  CRfidConfig mConfig{HubConfig::Create("settings", "/", {}), HubConfig::Create("rfid_standalone", "/", {})};
};

}  // namespace

TEST_F(RfidConfig, SwitchesHaveTheirDefaultsAndFollowTheFileAtTheNextQuestion) {
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
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Debug),
                ElementsAre(EndsWith(") Settings have been updated, reloading."),
                            EndsWith(c.ocpp ? ") OCPP Status: Active" : ") OCPP Status: Inactive"),
                            EndsWith(c.authorisation ? ") Authorization enabled: true"
                                                     : ") Authorization enabled: false")));
  }
}

TEST_F(RfidConfig, TheStandaloneListLetsInWhoIsInItAndNobodyElse) {
  struct Case {
    const char* list;
    bool permitted;
    std::vector<const char*> warnings;
  };
  constexpr const char* NoUid = ") Token has no member RfidTokenUid. Skipping...";
  for (const auto& c : std::vector<Case>{
           {R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"}]})", true, {}},
           {R"({"Tokens": [{"RfidTokenUid": "11111111"}, {"RfidTokenUid": "0A1B2C3D", "Name": "x"}]})",
            true,
            {}},
           {R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"}, {"RfidTokenUid": "0A1B2C3D"}]})", true, {}},
           {R"({"Tokens": [{"Uid": 1}, {"RfidTokenUid": "0A1B2C3D"}]})", true, {NoUid}},
           {R"({"Tokens": ["0A1B2C3D", 7, null, ["0A1B2C3D"]]})", false, {NoUid, NoUid, NoUid, NoUid}},
           {R"({"Tokens": [{"RfidTokenUid": "0a1b2c3d"}, {"RfidTokenUid": " 0A1B2C3D"}]})", false, {}},
           {R"({"Tokens": [{"RfidTokenUid": null}]})", false, {}},
           {R"({"Tokens": [{"RfidTokenUid": ["0A1B2C3D"]}]})",
            false,
            {") RfidTokenUid is not a text. Skipping..."}},
           {R"({"Tokens": {"RfidTokenUid": "0A1B2C3D"}})", false, {}},
           {R"({"Tokens": []})", false, {}},
           {R"({})", false, {}},
       }) {
    SCOPED_TRACE(c.list);
    mStore.Write("rfid_standalone", c.list);
    mLog.Clear();
    EXPECT_EQ(mConfig.AuthenticateToken("0A1B2C3D"),
              c.permitted ? ipc::ERfidUidInStandAloneList : ipc::ERfidUidNotInList);
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Info),
                ElementsAre(EndsWith(c.permitted ? ") Found Match!" : ") UID not in list.")));
    const auto warnings = mLog.Texts(Log::ELogLevel::Warning);
    ASSERT_EQ(warnings.size(), c.warnings.size());
    for (size_t i = 0; i < warnings.size(); ++i) {
      EXPECT_THAT(warnings[i], EndsWith(c.warnings[i]));
    }
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Debug),
                ElementsAre(EndsWith(") Standalone list has been updated"),
                            EndsWith(") Checking standalone list for: 0A1B2C3D")));
  }
}

TEST_F(RfidConfig, ABrokenListKeepsTheLastGoodOneAndIsNotLoadedAgainUntilItChanges) {
  mStore.Write("rfid_standalone", R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"}]})");
  EXPECT_EQ(mConfig.AuthenticateToken("0A1B2C3D"), ipc::ERfidUidInStandAloneList);
  mStore.Write("rfid_standalone", R"({"Tokens": [)");
  EXPECT_EQ(mConfig.AuthenticateToken("0A1B2C3D"), ipc::ERfidUidInStandAloneList);
  EXPECT_EQ(mLog.Texts(Log::ELogLevel::Error).size(), 1U);
  mLog.Clear();
  EXPECT_EQ(mConfig.AuthenticateToken("0A1B2C3D"), ipc::ERfidUidInStandAloneList);
  EXPECT_THAT(mLog.Texts(Log::ELogLevel::Debug), Not(Contains(EndsWith("Standalone list has been updated"))));
}
