#include "src/components/rfidconfig.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <utility>
#include <vector>

#include "framework/logcapture.h"
#include "temporarystore.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
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

using Lines = std::vector<LogCapture::Line>;

/// A configuration client that gives the list as a whole only.
struct ClientOfAnotherFramework {
  Json::Value section;
  Json::Value GetValue(const std::string& key, const Json::Value& defaultValue) const {
    return section.get(key, defaultValue);
  }
};

/// The answer and the lines that a walk through the list gives.
std::pair<ipc::ERfidAuthState, Lines> Scan(const Json::Value& section, const std::string& uid) {
  Lines lines;
  const auto say = [&](Log::ELogLevel level, const std::string& text) {
    lines.push_back({static_cast<int>(level), text});
  };
  say(Log::ELogLevel::Trace, "CRfidConfig::AuthenticateToken");
  say(Log::ELogLevel::Debug, "Checking standalone list for: " + uid);
  Json::Value list = section.get("Tokens", Json::Value());
  if (!list.isNull() && !list.isArray()) {
    say(Log::ELogLevel::Error, "Standalone list: \"Tokens\" must be an array. Taking it as empty.");
    list = Json::Value();
  }
  for (const auto& element : list) {
    if (!element.isObject() || !element.isMember("RfidTokenUid")) {
      say(Log::ELogLevel::Warning, "Token has no member RfidTokenUid. Skipping...");
    } else if (!element["RfidTokenUid"].isConvertibleTo(Json::stringValue)) {
      say(Log::ELogLevel::Warning, "RfidTokenUid is not a text. Skipping...");
    } else if (element["RfidTokenUid"].asString() == uid) {
      say(Log::ELogLevel::Info, "Found Match!");
      return {ipc::ERfidUidInStandAloneList, lines};
    }
  }
  say(Log::ELogLevel::Info, "UID not in list.");
  return {ipc::ERfidUidNotInList, lines};
}

/// Sections as nobody writes them on purpose: few different UIDs, so that they repeat and match.
class RandomLists {
 public:
  explicit RandomLists(unsigned seed) : mRandom(seed) {}

  Json::Value Section() {
    Json::Value section(Json::objectValue);
    if (const int kind = Below(20); kind == 0) {
      section["Tokens"] = Json::objectValue;
      section["Tokens"]["RfidTokenUid"] = Text();
    } else if (kind == 1) {
      section["Tokens"] = Text();
    } else if (kind > 2) {
      section["Tokens"] = kind == 3 ? Json::Value() : Json::arrayValue;
      for (int count = kind == 3 ? 0 : Below(30); count > 0; --count) {
        section["Tokens"].append(Element());
      }
    }
    return section;
  }

  std::string Text() {
    static const std::string texts[] = {"0A1B2C3D",       "0a1b2c3d",    "",     " 0A1B2C3D",
                                        "04112233445566", "caf\xC3\xA9", "12",   "true",
                                        "-1.5",           "1e3",         "null", std::string("0A\0B", 4)};
    return texts[Below(std::size(texts))];
  }

 private:
  int Below(std::size_t bound) { return static_cast<int>(mRandom() % bound); }

  Json::Value Element() {
    if (Below(5) == 0) {
      return Value();
    }
    Json::Value element(Json::objectValue);
    if (Below(5) != 0) {
      element["RfidTokenUid"] = Below(3) == 0 ? Value() : Text();
    }
    if (Below(3) == 0) {
      element["Name"] = Value();
    }
    return element;
  }

  Json::Value Value() {
    const Json::Value values[] = {
        Json::Value(),        true, 12, -1.5, 1e3, Json::arrayValue, Json::objectValue, Text(),
        Json::UInt64{1} << 63};
    Json::Value list(Json::arrayValue);
    list.append(Text());
    return Below(10) == 0 ? list : values[Below(std::size(values))];
  }

  std::mt19937 mRandom;
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

TEST_F(RfidConfig, TheIndexAnswersAndLogsLikeAWalkThroughTheList) {
  Json::StreamWriterBuilder writer;
  Json::CharReaderBuilder reader;
  writer["indentation"] = "";
  RandomLists random(4711);
  int matches = 0;
  for (int document = 0; document < 400; ++document) {
    const std::string text = Json::writeString(writer, random.Section());
    Json::Value section;
    std::istringstream stream(text);
    ASSERT_TRUE(Json::parseFromStream(reader, stream, &section, nullptr));
    mStore.Write("rfid_standalone", text);
    mConfig.AuthenticateToken("load");
    for (int question = 0; question < 8; ++question) {
      const std::string uid = random.Text();
      SCOPED_TRACE(fmt::format("{} in {}", uid, text));
      mLog.Clear();
      const auto answer = mConfig.AuthenticateToken(uid);
      const auto [expectedAnswer, expectedLines] = Scan(section, uid);
      ASSERT_EQ(answer, expectedAnswer);
      const auto lines = mLog.Console();
      ASSERT_EQ(lines.size(), expectedLines.size());
      for (std::size_t i = 0; i < lines.size(); ++i) {
        ASSERT_EQ(lines[i].level, expectedLines[i].level);
        // The log writes control characters as they are named.
        if (uid.find('\0') == std::string::npos) {
          ASSERT_THAT(lines[i].text, EndsWith(") " + expectedLines[i].text));
        }
      }
      const CStandaloneList list(ClientOfAnotherFramework{section});
      const auto warnings = std::count_if(expectedLines.begin(), expectedLines.end(), [](const auto& line) {
        return line.level == static_cast<int>(Log::ELogLevel::Warning);
      });
      ASSERT_EQ(list.Find(uid).permitted, expectedAnswer == ipc::ERfidUidInStandAloneList);
      ASSERT_EQ(list.Find(uid).faults.size(), warnings);
      ASSERT_EQ(list.IsList(),
                !section.isMember("Tokens") || section["Tokens"].isNull() || section["Tokens"].isArray());
      matches += answer == ipc::ERfidUidInStandAloneList ? 1 : 0;
    }
  }
  EXPECT_GT(matches, 500);
}

TEST_F(RfidConfig, AListThatWasLoadedBeforeIsUsedWithoutBeingLoadedAgain) {
  mStore.Write("rfid_standalone", R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"}]})");
  const auto list = HubConfig::Create("rfid_standalone", "/", {});
  list->Reload();
  EXPECT_EQ(list->GetValue("Tokens", {}).size(), 1U);
  CRfidConfig config(HubConfig::Create("settings", "/", {}), list);
  EXPECT_EQ(config.AuthenticateToken("0A1B2C3D"), ipc::ERfidUidInStandAloneList);
}

TEST_F(RfidConfig, AListThatCannotBeUsedAfterTheStartIsReportedAtEveryCard) {
  mStore.Write("rfid_standalone", R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"})");
  for (int card = 0; card < 3; ++card) {
    mLog.Clear();
    EXPECT_EQ(mConfig.AuthenticateToken("0A1B2C3D"), ipc::ERfidUidNotInList);
    EXPECT_THAT(mLog.Texts(Log::ELogLevel::Error),
                ElementsAre(testing::AllOf(HasSubstr("rfid_standalone.json"), HasSubstr("cannot be used"))));
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
