// Records of what programs and the kernel say to each other: the text and the recorder.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/nfc.h>

#include <csignal>
#include <map>
#include <regex>
#include <sstream>

#include "controlprotocol.h"
#include "controlserver.h"
#include "record.h"
#include "tools/harness/station.h"

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

/// What each socket says and hears in a record, without times and the numbers that each run has of its own.
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
    if (!socket.empty() && socket != "#") all[socket] += line + "\n";
  }
  return all;
}

TEST(Record, OfACardIsWhatTheDocumentShows) {
  Station station(NewFolder("record"));
  const ControlServer control(station.Kernel());
  const auto recorder = Tool(station, station.Kernel(), {"record", station.Path("file")});
  ASSERT_TRUE(Eventually([&] { return !ReadFile(station.Path("file")).empty(); }));
  ASSERT_TRUE(station.StartDaemon());
  ASSERT_TRUE(station.EnableDaemon());
  const auto polls = [](std::uint32_t count) {
    return [count](const Status& status) { return status.Commands(NFC_CMD_START_POLL) >= count; };
  };
  ASSERT_TRUE(station.Kernel().WaitFor(polls(1)));
  // Longer than it takes to find it, and shorter than to find it twice.
  station.Kernel().PresentTagFor(MakeTag(TagKind::Mifare, "04A12B5C"), 30ms);
  ASSERT_TRUE(station.Kernel().WaitFor(polls(2)));
  ASSERT_TRUE(station.Control().WaitFor("token 04A12B5C ERfidUidNotInList"));
  station.Daemon().Signal(SIGINT);
  EXPECT_EQ(station.EndDaemon(), "exit 0");
  station.Kernel().ClearRules();
  ASSERT_TRUE(Eventually([&] {  // all that went before stands in the file then
    return ReadFile(station.Path("file")).find("rule clear") != std::string::npos;
  }));
  recorder->Signal(SIGINT);
  EXPECT_EQ(recorder->Wait(), "exit 0");
  EXPECT_EQ(Conversations(ReadFile(station.Path("file"))), Conversations(ReadFile(CARD_RECORD)));
  if (HasFailure()) station.KeepFolder();
}

TEST(RecordText, IsAnotherOneForEveryByteThatIsOther) {
  const NetlinkIds ids{20, 3, 4711};
  NfcKernel kernel({});
  kernel.AddDevice(0);
  MessageBuilder odd(20, NLM_F_REQUEST | NLM_F_DUMP | 0x1000, 7, 4711);
  odd.Genl(NFC_CMD_START_POLL, 1).U32(NFC_ATTR_PROTOCOLS, 0xFFFF).U8(NFC_ATTR_DEVICE_INDEX, 1);
  odd.String(NFC_ATTR_DEVICE_NAME, "\"a\\\x01(b) unpadded").U16(99, 5).Raw(NFC_ATTR_SE | NLA_F_NESTED, {});
  const Request lookUp = ParseRequest(MessageBuilder(GENL_ID_CTRL, NLM_F_REQUEST | NLM_F_ACK, 1, 4711)
                                          .Genl(CTRL_CMD_GETFAMILY, 1)
                                          .String(CTRL_ATTR_FAMILY_NAME, "nlctrl")
                                          .Finish());
  const Request request = ParseRequest(odd.Finish());
  Bytes all = kernel.Handle(lookUp, 4711).answer.messages.front();
  for (const Bytes& message : {request.whole, kernel.Refuse(request, 4711, 300).answer.messages.front(),
                               MakeDoneMessage(request, 1, EINVAL), kernel.DeviceRemovedEvent(0)}) {
    all.insert(all.end(), message.begin(), message.end());
  }
  std::map<std::string, Bytes> texts;
  for (std::size_t i = 0; i < 2 * all.size(); ++i) {
    // Cut off after each byte, then with each byte damaged.
    Bytes bytes(all.begin(), i < all.size() ? all.begin() + static_cast<std::ptrdiff_t>(i) : all.end());
    if (i >= all.size()) bytes[i - all.size()] ^= static_cast<std::uint8_t>(i | 1);
    RecordEntry entry;
    entry.kind = EntryKind::Delivery;
    entry.messages = DescribeDatagram(bytes, ids, false);
    const auto& [text, first] = *texts.emplace(FormatEntry(entry), bytes).first;
    ASSERT_EQ(first, bytes) << text;
  }
}

TEST(RecordServer, CutsOffARecorderThatDoesNotRead) {
  VirtualNfc kernel;
  const ControlServer control(kernel);
  const UniqueFd recorder = ConnectUnix(ControlAddress(kernel.Address()), SOCK_STREAM);
  ASSERT_EQ(::send(recorder.Get(), "record\n", 7, 0), 7);
  const std::string longText = "DEV_UP" + std::string(100000, ' ') + "drop";
  for (int i = 0; i < 30; ++i) kernel.AddRule(longText);
  EXPECT_THAT(AskServer(kernel.Address(), "status", 60s), HasSubstr("ok"));
  std::string text(4'000'000, ' ');
  text.resize(static_cast<std::size_t>(::recv(recorder.Get(), text.data(), text.size(), MSG_WAITALL)));
  EXPECT_LT(text.size(), 2'500'000U);  // of 3,000,000
  EXPECT_THAT(text.substr(text.size() - 100), HasSubstr("\nerror: the record ends here"));
}

}  // namespace
