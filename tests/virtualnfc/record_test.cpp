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
#include "tools/virtual-nfc/server/controlprotocol.h"
#include "tools/virtual-nfc/server/controlserver.h"
#include "tools/virtual-nfc/trace/netlinktext.h"

namespace {

using namespace std::chrono_literals;
using namespace virtualnfc;
using testing::HasSubstr;

std::unique_ptr<Process> Tool(const Station& station, const VirtualNfc& kernel,
                              std::vector<std::string> words) {
  const auto programs = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  words.insert(words.begin(), {programs / "virtual-nfc", "--socket", kernel.Address()});
  const std::string name = station.Path(words[3]);
  return std::make_unique<Process>(words, std::map<std::string, std::string>{}, name + ".out", name + ".err");
}

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
  const ControlServer control(station.Kernel());
  const auto recorder = Tool(station, station.Kernel(), {"record", station.Path("file")});
  const auto written = [&] { return ReadFile(station.Path("file")); };
  ASSERT_TRUE(Becomes(written, testing::Not(testing::IsEmpty())));
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
  station.Kernel().ClearRules();
  ASSERT_TRUE(Becomes(written, HasSubstr("rule clear")));  // the file has everything before it, too
  recorder->Signal(SIGINT);
  EXPECT_EQ(recorder->Wait(), "exit 0");
  EXPECT_EQ(Conversations(written()), Conversations(ReadFile(CARD_RECORD)));
  if (HasFailure()) {
    station.KeepFolder();
  }
}

TEST(Record, RefusesACountOfZero) {
  Station station(NewFolder("record"));
  const auto recorder = Tool(station, station.Kernel(), {"record", "--count", "0"});
  EXPECT_EQ(recorder->Wait(), "exit 2");
  EXPECT_EQ(ReadFile(station.Path("record.err")),
            "virtual-nfc: --count: Value 0 not in range 1 to 4294967295 (see --help)\n");
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

TEST(RecordServer, EndsARecordThatIsNotRead) {
  VirtualNfc kernel;
  const ControlServer control(kernel);
  const UniqueFd recorder = ConnectUnix(ControlAddress(kernel.Address()), SOCK_STREAM);
  ASSERT_EQ(::send(recorder.Get(), "record\n", 7, 0), 7);
  const std::string longText = "DEV_UP" + std::string(100000, ' ') + "drop";
  for (int i = 0; i < 30; ++i) {
    kernel.AddRule(longText);
  }
  EXPECT_THAT(AskServer(kernel.Address(), "status", 60s), HasSubstr("ok"));
  std::string text(4'000'000, ' ');
  text.resize(static_cast<std::size_t>(::recv(recorder.Get(), text.data(), text.size(), MSG_WAITALL)));
  EXPECT_LT(text.size(), 2'500'000U);  // of 3,000,000
  EXPECT_THAT(text.substr(text.size() - 100), HasSubstr("\n# error: the record ends here"));
}

}  // namespace
