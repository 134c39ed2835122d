#include "framework/hubconfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "framework/logcapture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Level = Log::ELogLevel;

class HubConfigTest : public testing::Test {
 protected:
  HubConfigTest() {
    std::string name = testing::TempDir() + "hubconfig-XXXXXX";
    mFolder = mkdtemp(name.data());
    HubConfig::SetStore(mFolder);
  }
  ~HubConfigTest() override { std::filesystem::remove_all(mFolder); }

  std::filesystem::path File() const { return mFolder / "settings.json"; }

  /// As a station's other programs change a section: in one step.
  void Replace(const std::string& content) const {
    const auto temporary = mFolder / "settings.json.new";
    std::ofstream(temporary) << content;
    std::filesystem::rename(temporary, File());
  }

  std::filesystem::path mFolder;
  LogCapture mLog;
};

}  // namespace

TEST_F(HubConfigTest, AFileThatComesChangesAndGoesIsSeenAtTheNextLook) {
  const auto section = HubConfig::Create("settings", "/", {});
  EXPECT_TRUE(section->IsUpdated()) << "nothing was loaded yet";
  section->Reload();
  EXPECT_FALSE(section->IsUpdated());
  EXPECT_TRUE(section->GetBool("On", true));

  for (const bool on : {true, false, true}) {
    Replace(on ? R"({"On": true })" : R"({"On": false})");  // of one length
    EXPECT_TRUE(section->IsUpdated());
    section->Reload();
    EXPECT_FALSE(section->IsUpdated());
    EXPECT_EQ(section->GetBool("On", !on), on);
  }

  std::filesystem::remove(File());
  EXPECT_TRUE(section->IsUpdated());
  section->Reload();
  EXPECT_FALSE(section->GetBool("On", false)) << "a missing file is an empty section";
  EXPECT_THAT(mLog.Texts(Level::Error), IsEmpty());
}

TEST_F(HubConfigTest, AFileThatCannotBeUsedIsReportedOnceAndTheLastGoodValuesStay) {
  const struct {
    std::string content;
    std::string reported;
  } cases[] = {
      {"", "line 1, column 1: "},
      {"{\n  \"On\": true,\n  \"Off\" false\n}", "line 3, column 9: Missing ':'"},
      {R"({"On": false, "On": true})", "Duplicate key"},
      {"[true]", "not an object"},
      {std::string(5000, '['), "stack"},
  };
  for (const auto& [content, reported] : cases) {
    Replace(R"({"On": true})");
    const auto section = HubConfig::Create("settings", "/", {});
    section->Reload();
    mLog.Clear();

    Replace(content);
    EXPECT_TRUE(section->IsUpdated());
    section->Reload();
    EXPECT_FALSE(section->IsUpdated()) << "not tried again until it changes";
    EXPECT_TRUE(section->GetBool("On", false));
    ASSERT_THAT(mLog.Texts(Level::Error),
                ElementsAre(testing::AllOf(HasSubstr(File().string()), HasSubstr(reported),
                                           HasSubstr("The values loaded before stay."))));

    Replace(R"({"On": false})");
    EXPECT_TRUE(section->IsUpdated());
    section->Reload();
    EXPECT_FALSE(section->GetBool("On", true));
  }
}

TEST_F(HubConfigTest, AFileThatLeavesNoValuesIsReportedAtEveryLookUntilItIsMended) {
  const auto section = HubConfig::Create("settings", "/", {});
  section->Reload();  // there is none: nothing to report
  EXPECT_FALSE(section->IsUpdated());
  const auto expectReports = [&](const char* what) {
    for (int look = 0; look < 3; ++look) {
      mLog.Clear();
      EXPECT_TRUE(section->IsUpdated());
      section->Reload();
      EXPECT_FALSE(section->GetBool("On", false));
      EXPECT_THAT(mLog.Texts(Level::Error),
                  ElementsAre(testing::AllOf(HasSubstr(what), HasSubstr("the defaults apply"))));
    }
  };
  Replace(R"({"On": true)");
  expectReports("line 1, column 12");
  std::filesystem::resize_file(File(), 64 * 1024 * 1024 + 1);
  expectReports("is larger than 64 MiB");
  std::filesystem::remove(File());
  std::filesystem::create_directory(File());
  expectReports("it is a folder");

  std::filesystem::remove(File());
  Replace(R"({"On": true})");
  section->Reload();
  EXPECT_TRUE(section->GetBool("On", false));
  Replace("[");
  section->Reload();
  EXPECT_FALSE(section->IsUpdated()) << "there are good values now";
}

TEST_F(HubConfigTest, WhatCannotBeReadIsNoEmptySection) {
  Replace(R"({"On": true})");
  const auto section = HubConfig::Create("settings", "/", {});
  section->Reload();
  mLog.Clear();

  std::filesystem::remove(File());
  std::filesystem::create_symlink(File(), File());
  EXPECT_TRUE(section->IsUpdated());
  section->Reload();
  EXPECT_FALSE(section->IsUpdated());
  EXPECT_TRUE(section->GetBool("On", false));
  EXPECT_THAT(mLog.Texts(Level::Error), ElementsAre(HasSubstr("cannot be read")));
}

TEST_F(HubConfigTest, AWrongTypeGivesTheDefaultAndIsReportedOncePerLoad) {
  const auto section = HubConfig::Create("settings", "/", {});
  for (const auto& [value, kind] : std::map<std::string, std::string>{{"\"true\"", "is a string"},
                                                                      {"1", "is a number"},
                                                                      {"null", "is null"},
                                                                      {"[]", "is an array"},
                                                                      {"{}", "is an object"}}) {
    Replace("{\"On\": " + value + ", \"Tokens\": 5}");
    section->Reload();
    mLog.Clear();
    EXPECT_TRUE(section->GetBool("On", true));
    EXPECT_FALSE(section->GetBool("On", false));
    EXPECT_THAT(mLog.Texts(Level::Error),
                ElementsAre(testing::AllOf(HasSubstr("settings"), HasSubstr("\"On\""), HasSubstr(kind))));
    EXPECT_EQ(section->GetValue("Tokens", {}), Json::Value(5));
    EXPECT_EQ(section->GetValue("Missing", "none"), Json::Value("none"));
  }
}

TEST_F(HubConfigTest, AChangeMadeWhileTheSectionIsLoadedIsSeenNextTime) {
  Replace(R"({"On": true})");
  std::vector<std::string> seen;
  const auto section = HubConfig::Create("settings", "/", [&](const auto& name, const Json::Value& values) {
    seen.push_back(name + (values["On"].asBool() ? " on" : " off"));
    Replace(R"({"On": false})");
    throw std::runtime_error("callback failed");
  });
  section->Reload();
  EXPECT_TRUE(section->IsUpdated());
  section->Reload();
  EXPECT_FALSE(section->GetBool("On", true));
  EXPECT_THAT(seen, ElementsAre("settings on", "settings off"));
  EXPECT_EQ(mLog.Texts(Level::Error).size(), 2U);
}

TEST_F(HubConfigTest, ASectionMayStandInAFolderOfTheStoreAndBeginWithAByteOrderMark) {
  std::filesystem::create_directory(mFolder / "site");
  std::ofstream(mFolder / "site" / "settings.json") << "\xEF\xBB\xBF{\"On\": true}";
  const auto section = HubConfig::Create("settings", "/site", {});
  section->Reload();
  EXPECT_TRUE(section->GetBool("On", false));
}
