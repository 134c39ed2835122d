// Records of the messages between programs and the kernel.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/nfc.h>

#include <csignal>
#include <map>
#include <regex>
#include <sstream>

#include "tests/evidence.h"
#include "tools/harness/station.h"
#include "tools/virtual-nfc/trace/netlinktext.h"
#include "tools/virtual-nfc/trace/recorder.h"

namespace {

using namespace std::chrono_literals;
using namespace virtualnfc;

/// The messages of each socket in a record, without times and without numbers that differ in each run.
std::map<std::string, std::string> Conversations(const std::string& record) {
  static const std::regex ofThisRun("seq=[1-9][0-9]*| port [0-9]+");
  std::map<std::string, std::string> all;
  std::istringstream stream(record);
  std::string socket;
  for (std::string line; std::getline(stream, line);) {
    line = std::regex_replace(line, ofThisRun, "");
    if (!line.starts_with(' ')) {
      const std::size_t hash = line.find('#');
      line.erase(0, std::min(hash, line.size()));
      socket = line.substr(0, line.find(' '));
    }
    if (!socket.empty() && socket != "#") {
      all[socket] += line + "\n";
    }
  }
  return all;
}

TEST(Record, OfACardIsAsInTheDocument) {
  Station station(NewFolder("record"));
  const Recorder recorder(station.Kernel(), station.Path("record"));
  ASSERT_TRUE(station.StartDaemon());
  ASSERT_TRUE(station.EnableDaemon());
  const auto polls = [&] { return station.Kernel().GetStatus().Commands(NFC_CMD_START_POLL); };
  ASSERT_TRUE(Becomes(polls, testing::Ge(1U)));
  // Long enough to find the tag once, too short to find it twice.
  station.Kernel().PresentTagFor(MakeTag(TagKind::Mifare, "04A12B5C"), 30ms);
  ASSERT_TRUE(Becomes(polls, testing::Ge(2U)));
  ASSERT_TRUE(Becomes([&] { return station.Control().Notified(); },
                      testing::Contains("token 04A12B5C ERfidUidNotInList")));
  station.Daemon().Signal(SIGINT);
  EXPECT_EQ(station.EndDaemon(), "exit 0");
  EXPECT_EQ(Conversations(ReadFile(station.Path("record"))), Conversations(ReadFile(CARD_RECORD)));
  if (HasFailure()) {
    station.KeepFolder();
  }
}

TEST(RecordText, ShowsDamagedMessages) {
  NfcKernel kernel({});
  const Request odd = ParseRequest(MessageBuilder(20, NLM_F_REQUEST | NLM_F_DUMP | 0x1000, 7, 4711)
                                       .Genl(NFC_CMD_START_POLL, 9)
                                       .U32(NFC_ATTR_PROTOCOLS, 0xFF)
                                       .U8(NFC_ATTR_DEVICE_INDEX, 1)
                                       .String(NFC_ATTR_DEVICE_NAME, "nfc0")
                                       .Raw(99 | NLA_F_NESTED, Bytes{5, 6, 7})
                                       .Payload(Bytes{60, 0, 1, 0})
                                       .Finish());
  const Bytes error = kernel.Refuse(odd, 4711, 300).answer.messages.front();
  EXPECT_THAT(DescribeDatagram(error, 20, 4711), testing::ElementsAre(R"(error 300 seq=7
      to nfc START_POLL version=9 flags=REQUEST|DUMP|0x1000 seq=7
        NFC_ATTR_PROTOCOLS 255 (0x000000ff)
        NFC_ATTR_DEVICE_INDEX 1 (0x01)
        NFC_ATTR_DEVICE_NAME "nfc0"
        attribute 99 flags=0x8000 hex 050607
        undecodable hex 3c000100)"));
  EXPECT_THAT(DescribeDatagram(MakeDoneMessage(odd, 1, EBUSY), 20, 4711),
              testing::ElementsAre("done EBUSY flags=MULTI seq=7 pid=1"));
  // Cut off after each byte, then with each byte damaged.
  for (std::size_t i = 0; i < 2 * error.size(); ++i) {
    Bytes bytes(error.begin(), error.begin() + static_cast<std::ptrdiff_t>(std::min(i, error.size())));
    if (i >= error.size()) {
      bytes[i - error.size()] ^= 0xFF;
    }
    EXPECT_THAT(DescribeDatagram(bytes, 20, 4711), testing::Not(testing::IsEmpty()));
  }
}

}  // namespace
