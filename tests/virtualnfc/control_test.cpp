// The lines that control a running server.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "tools/virtual-nfc/server/controlprotocol.h"

namespace {

using namespace virtualnfc;

TEST(ControlLine, IsRefusedWithAReason) {
  VirtualNfc kernel;
  for (const auto& [line, reason] : std::map<std::string, std::string>{
           {"", "A subcommand is required"},
           {"tap", "UID is required"},
           {"tap 04112233 --tech iso-dep",
            "--tech: iso-dep not in {mifare,felica,iso14443a,nfc-dep,iso14443b,iso15693,foreign}"},
           {"tap 0411223", "'0411223' ends in half a byte"},
           {"tap 041122", "a tag of kind mifare has a UID of 0, 4, 7, 10 bytes, not 3"},
           {"unplug 7", "there is no device 7"},
           {"rule add", "RULE is required"},
           {"rule add DEV_UP", "the rule has no action"},
           {"rule add SLEEP drop", "unknown command 'SLEEP'"},
           {"rule add DEV_UP nth=0 drop", "nth is a number from 1 to 4294967295, not '0'"},
           {"rule add DEV_UP errno=EWHAT", "unknown error name 'EWHAT'"},
           {"rule add DEV_UP errno=0", "errno is a number from 1 to 4095, not '0'"},
           {"rule add DEV_UP garble=odd", "'garble=odd' is neither a condition nor an action"},
           {"rule add TARGETS_FOUND unplug", "events cannot take errno, delay, cross or unplug"}}) {
    EXPECT_EQ(HandleControlLine(kernel, line), "error: " + reason + "\n") << line;
  }
}

TEST(ControlLine, UnplugsEveryReader) {
  VirtualNfc kernel;
  EXPECT_EQ(HandleControlLine(kernel, "plug"), "ok\ndevice 1\n");
  EXPECT_EQ(HandleControlLine(kernel, "unplug"), "ok\n");
  EXPECT_EQ(HandleControlLine(kernel, "unplug"), "ok\n");
  EXPECT_EQ(HandleControlLine(kernel, "unplug"), "error: there is no device 0\n");
}

TEST(Words, AreInTheManual) {
  std::stringstream manual;
  manual << std::ifstream(VIRTUAL_NFC_MANUAL).rdbuf();
  const std::string text = std::regex_replace(manual.str(), std::regex(R"(\\-)"), "-");
  for (const auto* words : {&TagKindNames(), &FaultNames()}) {
    for (const std::string& word : *words) {
      EXPECT_TRUE(std::regex_search(text, std::regex("\\b" + word + "\\b"))) << word;
    }
  }
}

}  // namespace
