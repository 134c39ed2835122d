// Records of what programs and the kernel say to each other: the text, the recorder, the replay.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/nfc.h>

#include <csignal>

#include "controlprotocol.h"
#include "controlserver.h"
#include "record.h"
#include "tools/harness/station.h"

namespace {

using namespace std::chrono_literals;
using namespace virtualnfc;
using testing::HasSubstr;

/// The chip takes long enough that a card can be taken away before it is found again, on a slow machine too.
VirtualNfcSettings WithSlowChip() {
  VirtualNfcSettings settings;
  settings.detectionDelay = 300ms;
  return settings;
}

std::unique_ptr<Process> Tool(const Station& station, const VirtualNfc& kernel,
                              std::vector<std::string> words) {
  const auto programs = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  words.insert(words.begin(), {programs / "virtual-nfc", "--socket", kernel.Address()});
  const std::string name = station.Path(words[3]);
  return std::make_unique<Process>(words, std::map<std::string, std::string>{}, name + ".out", name + ".err");
}

/// Replays on a new kernel. @returns how it ended, and what it said
std::string Replay(const Station& station, const std::string& file) {
  VirtualNfc kernel(WithSlowChip());
  const ControlServer control(kernel);
  const auto end = Tool(station, kernel, {"replay", file})->Wait().value_or("still running");
  return end + ": " + ReadFile(station.Path("replay.out")) + ReadFile(station.Path("replay.err"));
}

/// Whether a replay says so; another try shows it where the machine stalled so that the chip was quicker.
bool Says(const Station& station, const std::string& file, const std::string& end, const std::string& what) {
  return Eventually([&] {
    const std::string said = Replay(station, file);
    std::printf("%s", said.c_str());
    return said.starts_with(end) && said.find(what) != std::string::npos;
  });
}

TEST(Record, OfTheDaemonCanBeReplayedAndIsTheSame) {
  Station station("record", WithSlowChip());
  const ControlServer control(station.Kernel());
  const auto recorder = Tool(station, station.Kernel(), {"record", station.Path("file")});
  ASSERT_TRUE(Eventually([&] { return !ReadFile(station.Path("file")).empty(); }));
  ASSERT_TRUE(station.StartDaemon());
  ASSERT_TRUE(station.EnableDaemon());
  const auto polls = [](const Status& status) { return status.Device().polling; };
  for (const char* rule : {"GET_TARGET times=1 delay=50", "DEV_UP times=1 errno=EALREADY",
                           "GET_TARGET garble=long", "DEV_UP times=1 unplug"}) {
    ASSERT_TRUE(station.Kernel().WaitFor(polls));
    ASSERT_THAT(AskServer(station.Kernel().Address(), std::string("rule add ") + rule, 60s), HasSubstr("ok"));
    ASSERT_TRUE(station.Tap(MakeTag(TagKind::Mifare, "04A12B5C")));
  }
  ASSERT_TRUE(station.Control().WaitFor("FatalError"));
  station.Kernel().Plug();
  station.Kernel().Unplug();
  station.Daemon().Signal(SIGINT);
  EXPECT_EQ(station.EndDaemon(), "exit 0");
  station.Kernel().ClearRules();
  ASSERT_TRUE(Eventually([&] {  // all that went before stands in the file then
    return ReadFile(station.Path("file")).find("rule clear") != std::string::npos;
  }));
  recorder->Signal(SIGINT);
  EXPECT_EQ(recorder->Wait(), "exit 0");
  EXPECT_THAT(ReadFile(station.Path("file")), HasSubstr("undecodable"));
  EXPECT_TRUE(Says(station, station.Path("file"), "", "compared: as recorded"));
  if (HasFailure()) station.KeepFolder();
}

struct Edit {
  const char* name;
  std::string from;
  std::string to;
  const char* end;
  /// Behind the number of the changed line.
  std::string says;
};

class RecordReplay : public testing::TestWithParam<Edit> {};

TEST_P(RecordReplay, NamesTheLineThatIsNotAsItShouldBe) {
  const Edit& edit = GetParam();
  const Station station("replay");
  std::string text = ReadFile(CARD_RECORD);
  const std::size_t at = text.find(edit.from);
  ASSERT_NE(at, std::string::npos);
  text.replace(at, edit.from.size(), edit.to);
  station.WriteFile("card.nfc", text);
  const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(at), '\n');
  EXPECT_TRUE(Says(station, station.Path("card.nfc"), edit.end,
                   edit.says.empty() ? "as recorded" : ":" + std::to_string(line) + ": " + edit.says));
}

INSTANTIATE_TEST_SUITE_P(
    All, RecordReplay,
    testing::Values(Edit{"same", "", "", "exit 0", ""},
                    Edit{"value", "hex 04a12b5c", "hex 04a12b5d", "exit 1",
                         "NFC_ATTR_TARGET_NFCID1 is hex 04a12b5c, recorded hex 04a12b5d"},
                    Edit{"attribute", "NFC_ATTR_RF_MODE 2", "NFC_ATTR_COMM_MODE 2", "exit 1",
                         "NFC_ATTR_COMM_MODE 2 is missing"},
                    Edit{"nested", "CTRL_ATTR_OP_FLAGS DUMP|HASPOL", "CTRL_ATTR_OP_FLAGS DO|HASPOL", "exit 1",
                         "CTRL_ATTR_OP_FLAGS"},
                    Edit{"error", "error EALREADY", "ack", "exit 1", "'error EALREADY', recorded 'ack'"},
                    Edit{"name", "NFC_ATTR_TARGET_SEL_RES", "NFC_ATTR_TARGET_SELRES", "exit 2",
                         "unknown attribute 'NFC_ATTR_TARGET_SELRES'"},
                    Edit{"number", "NFC_ATTR_DEVICE_INDEX 0", "NFC_ATTR_DEVICE_INDEX 0x", "exit 2",
                         "'0x' is no value"},
                    Edit{"card", "tap mifare 04A12B5C", "tap mifare 04A1", "exit 2", "a tag of kind mifare"}),
    [](const auto& test) { return test.param.name; });

TEST(RecordText, HoldsEveryByteOfWhateverIsSent) {
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
  for (std::size_t i = 0; i < 2 * all.size(); ++i) {
    // Cut off after each byte, then with each byte damaged.
    Bytes bytes(all.begin(), i < all.size() ? all.begin() + static_cast<std::ptrdiff_t>(i) : all.end());
    if (i >= all.size()) bytes[i - all.size()] ^= static_cast<std::uint8_t>(i | 1);
    RecordEntry entry;
    entry.kind = EntryKind::Delivery;
    entry.socket = 1;
    entry.messages = DescribeDatagram(bytes, ids, false);
    const std::string text =
        FormatRecordHead(ids) + "0.000 #1 open\n0.000 #1 port 4711\n" + FormatEntry(entry);
    ASSERT_EQ(BuildDatagram(ParseRecord(text).entries.at(2).messages, ids, false), bytes) << text;
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
