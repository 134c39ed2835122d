// Sends the same commands to the simulated kernel and to the real one; the answers must be the same. Covers
// every command in every state, messages of every form, every kind of tag and the reader's faults, for both
// kinds of reader.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <linux/nfc.h>

#include "tools/kernelbed/conversation.h"

using namespace virtualnfc;

namespace {

struct Story {
  std::string name;
  /// Separated by commas; see Conversation::Do.
  std::string steps;
};

class Conformance : public testing::TestWithParam<Stack> {
 protected:
  bool IsNci() const { return GetParam() == Stack::Nci; }

  /// Has the same conversation with both kernels, each with a newly plugged-in reader.
  template <typename Talk>
  void Compare(const std::string& name, Talk talk) const {
    SCOPED_TRACE(name);
    KernelIds ids;
    const auto hear = [&](std::unique_ptr<KernelBench> bench) {
      Conversation conversation(*bench);
      ids = conversation.Ids();
      talk(conversation);
      return conversation.Heard();
    };
    const auto real = hear(MakeRealBench(GetParam()));
    const auto simulated = hear(MakeSimulatedBench(GetParam(), ids));
    EXPECT_EQ(simulated.size(), real.size());
    for (size_t i = 0; i < std::min(real.size(), simulated.size()); ++i) {
      EXPECT_EQ(simulated[i], real[i]) << "the simulated kernel, then the real one";
    }
  }
  void Compare(const std::vector<Story>& stories) const {
    for (const Story& story : stories) {
      Compare(story.name, [&](Conversation& talk) {
        std::istringstream steps(story.steps);
        for (std::string step; std::getline(steps >> std::ws, step, ',');) {
          talk.Do(step);
        }
      });
    }
  }
};

}  // namespace

TEST_P(Conformance, EveryCommandInEveryState) {
  for (const Story& state :
       {Story{"down", ""}, Story{"up", "a up,"}, Story{"polling", "a up, a start,"},
        Story{"stopped", "a up, a start, a stop,"}, Story{"found", "a up, tags type2, a start, event, tags,"},
        Story{"found and polling", "a up, tags type2, a start, event, tags, a start,"},
        Story{"down after a find", "a up, tags type2, a start, event, tags, a down,"}}) {
    for (const char* question : {"device", "devices", "targets", "up", "down", "start", "stop"}) {
      for (const char program : {'a', 'b'}) {
        Compare({{fmt::format("{}, {} {}", state.name, program, question),
                  fmt::format("{} {} {}, a devices, a targets, a start, b stop", state.steps, program,
                              question)}});
      }
    }
  }
}

TEST_P(Conformance, OwnersAndMasks) {
  Compare({
      {"the owner goes", "a up, a start, a close, b ~ start, b stop, a stop"},
      {"the owner goes after a find", "a up, tags type2, a start, event, a close, b start"},
      {"no protocol", "a up, a start mask=0"},
      {"a protocol that no reader has", "a up, a start mask=1, a stop"},
      {"a protocol that only one reader has", "a up, a start mask=2, a stop"},
      {"a protocol that both have, and another", "a up, a start mask=5, a stop"},
      {"all protocols", "a up, a start mask=0xFFFFFFFF, a stop"},
      {"a tag of another technology", "a up, tags type2, a start mask=0x80, silence, a start, a stop"},
      {"a tag of another protocol",
       "a up, tags type2, a start mask=0x10, silence, a targets, a start, a stop"},
  });
}

TEST_P(Conformance, Tags) {
  std::string all = "a up";
  for (const char* kind : {"type2", "long", "longest", "type4", "b", "felica", "vicinity"}) {
    all += fmt::format(", tags {}, b start, event, a targets", kind);
  }
  if (!IsNci()) {
    all += ", tags telephone, b start, event, a targets";  // a chip without NFC-DEP cannot
  }
  Compare({
      {"one after the other", all},
      {"none", "a up, a start, silence, a targets, a stop, a targets"},
      {"held", "a up, tags type2, a start, event, a start, event, a targets"},
      {"gone, and still listed",
       "a up, tags type2, a start, event, tags, a start, a targets, a stop, a targets, a down, a targets,"
       "a up, a targets, tags type4, a start, event, a targets"},
      {"foreign",
       fmt::format("a up, tags foreign, a start, silence, a start, tags type2, {}, a stop, a start, event",
                   IsNci() ? "silence" : "event")},
      {"two of a technology",
       fmt::format("a up, tags type2 long, a start, {}, a targets", IsNci() ? "event" : "silence")},
  });
}

TEST_P(Conformance, TheReaderIsUnpluggedAndPluggedIn) {
  for (const Story& state : {Story{"down", ""}, Story{"up", "a up,"}, Story{"polling", "a up, a start,"},
                             Story{"found", "a up, tags type2, a start, event, tags,"}}) {
    Compare(
        {{state.name, state.steps +
                          "unplug, event, pause, a devices, a targets, a up, a start, a stop, a down, b stop,"
                          "plug, event, a devices, a start, a stop, a targets, a up, a start, tags type2, "
                          "event, a targets"}});
  }
}

TEST_P(Conformance, FaultsOfTheReader) {
  Compare(
      {{"the poll dies", "a up, a start, poll-dead, tags type2, silence, a start, a stop, a start, event"}});
  if (!IsNci()) {
    Compare({{"deaf",
              "a up, a start, deaf, tags type2, silence, a start, a stop, a down, a up, a start, silence,"
              "well, event, a targets"}});
    return;
  }
  const std::string cure = "a start, a stop, a start, a down, a up, a start, tags type2, event, a targets";
  Compare({
      {"the chip does not leave a tag",
       "a up, tags type2, a start, event, start-refused, tags, a start, a stop, a down, a up, a start"},
      {"the chip does not stop", "a up, a start, stop-refused, a stop," + cure},
      {"a signal ends START_POLL", "a up, start-late, a ! start, pause 3," + cure},
      {"a find crosses STOP_POLL",
       "a up, a start, stop-crosses, a ! stop, pause, tags, a down, a up, a start,"
       "silence, tags type2, event, a targets"},
  });
}

namespace {

constexpr std::uint16_t kAsk = NLM_F_REQUEST | NLM_F_ACK;
constexpr std::uint16_t kDump = kAsk | NLM_F_DUMP;

MessageBuilder Message(std::uint16_t family, std::uint8_t command, std::uint16_t flags = kAsk) {
  MessageBuilder message(family, flags, 7, 0);
  message.Genl(command, 1);
  return message;
}

/// A request with one defect, which its name states.
struct Form {
  const char* name;
  std::uint16_t flags;
  std::function<void(MessageBuilder&)> add;
};

const Form kForms[] = {
    {"no device", kAsk, [](MessageBuilder&) {}},
    {"no request flag", NLM_F_ACK, [](MessageBuilder& m) { m.U32(NFC_ATTR_DEVICE_INDEX, 0); }},
    {"no flag", 0, [](MessageBuilder& m) { m.U32(NFC_ATTR_DEVICE_INDEX, 0); }},
    {"no acknowledgement", NLM_F_REQUEST, [](MessageBuilder& m) { m.U32(NFC_ATTR_DEVICE_INDEX, 0); }},
    {"unknown device", kAsk,
     [](MessageBuilder& m) { m.U32(NFC_ATTR_DEVICE_INDEX, 7).U32(NFC_ATTR_PROTOCOLS, 4); }},
    {"dump", kDump, [](MessageBuilder& m) { m.U32(NFC_ATTR_DEVICE_INDEX, 0); }},
    {"dump, no device", kDump, [](MessageBuilder&) {}},
    {"dump, unknown device", kDump, [](MessageBuilder& m) { m.U32(NFC_ATTR_DEVICE_INDEX, 7); }},
    {"dump, no acknowledgement", kDump & ~NLM_F_ACK,
     [](MessageBuilder& m) { m.U32(NFC_ATTR_DEVICE_INDEX, 0); }},
    {"short device", kAsk, [](MessageBuilder& m) { m.U16(NFC_ATTR_DEVICE_INDEX, 0); }},
    {"long device", kAsk, [](MessageBuilder& m) { m.Raw(NFC_ATTR_DEVICE_INDEX, Bytes(8, 0)); }},
    {"short mask", kAsk,
     [](MessageBuilder& m) { m.U32(NFC_ATTR_DEVICE_INDEX, 0).U8(NFC_ATTR_PROTOCOLS, 4); }},
    {"two devices", kAsk,
     [](MessageBuilder& m) {
       m.U32(NFC_ATTR_DEVICE_INDEX, 7).U32(NFC_ATTR_DEVICE_INDEX, 0).U32(NFC_ATTR_PROTOCOLS, 4);
     }},
    {"two masks", kAsk,
     [](MessageBuilder& m) {
       m.U32(NFC_ATTR_DEVICE_INDEX, 0).U32(NFC_ATTR_IM_PROTOCOLS, 4).U32(NFC_ATTR_PROTOCOLS, 0);
     }},
    {"an attribute that is none", kAsk,
     [](MessageBuilder& m) { m.U32(NFC_ATTR_DEVICE_INDEX, 0).U32(NFC_ATTR_PROTOCOLS, 4).U32(200, 1); }},
    {"an attribute that is too long", kAsk,
     [](MessageBuilder& m) {
       m.U32(NFC_ATTR_DEVICE_INDEX, 0).Payload(Bytes{99, 0, 3, 0});
     }},
    {"bytes that are no attribute", kAsk,
     [](MessageBuilder& m) {
       m.U32(NFC_ATTR_DEVICE_INDEX, 0).Payload(Bytes{1, 2});
     }},
    {"a flag in the attribute's number", kAsk,
     [](MessageBuilder& m) { m.U32(NFC_ATTR_DEVICE_INDEX | NLA_F_NESTED, 0).U32(NFC_ATTR_PROTOCOLS, 4); }},
};

}  // namespace

TEST_P(Conformance, RequestsOfEveryForm) {
  for (const std::uint8_t command :
       {NFC_CMD_UNSPEC, NFC_CMD_GET_DEVICE, NFC_CMD_DEV_UP, NFC_CMD_START_POLL, NFC_CMD_STOP_POLL,
        NFC_CMD_GET_TARGET, NFC_CMD_DEV_DOWN, NFC_EVENT_TARGETS_FOUND, NFC_EVENT_DEVICE_REMOVED}) {
    Compare(fmt::format("command {}", command), [&](Conversation& talk) {
      talk.Do("a up");
      for (const Form& form : kForms) {
        MessageBuilder message = Message(talk.Ids().family, command, form.flags);
        form.add(message);
        talk.Send(form.name, message.Finish());
      }
    });
  }
}

TEST_P(Conformance, MessagesOfEveryForm) {
  Compare("", [](Conversation& talk) {
    const std::uint16_t nfc = talk.Ids().family;
    const auto ask = [&](const char* name, MessageBuilder& message) { talk.Send(name, message.Finish()); };
    const auto lookUp = [] { return Message(GENL_ID_CTRL, CTRL_CMD_GETFAMILY); };
    ask("the family by name", lookUp().String(CTRL_ATTR_FAMILY_NAME, "nfc"));
    ask("the family by number", lookUp().U16(CTRL_ATTR_FAMILY_ID, nfc));
    ask("the controller by number", lookUp().U16(CTRL_ATTR_FAMILY_ID, GENL_ID_CTRL));
    ask("a family that is not there", lookUp().String(CTRL_ATTR_FAMILY_NAME, "wlan"));
    talk.Send("no family", lookUp().Finish());
    talk.Send("a controller's command that is none", Message(GENL_ID_CTRL, 77).Finish());
    talk.Send("another family's type", Message(999, NFC_CMD_DEV_UP).Finish());
    talk.Send("a type below all families", Message(5, NFC_CMD_DEV_UP).Finish());
    talk.Send("an end", MessageBuilder(NLMSG_DONE, kAsk, 7, 0).Finish());
    talk.Send("no header of the family", MessageBuilder(nfc, kAsk, 7, 0).Finish());
    ask("half a header of the family", MessageBuilder(nfc, kAsk, 7, 0).Payload(Bytes{1}));
    talk.Send("half a header", Bytes{16, 0, 0});
    talk.Send("a length of 0", Bytes(64, 0));
    for (const std::uint8_t version : Bytes{0, 9}) {
      ask("another version",
          MessageBuilder(nfc, kAsk, 7, 0).Genl(NFC_CMD_GET_DEVICE, version).U32(NFC_ATTR_DEVICE_INDEX, 0));
    }
    Bytes two = Message(nfc, NFC_CMD_DEV_UP).U32(NFC_ATTR_DEVICE_INDEX, 0).Finish();
    const Bytes second = Message(nfc, NFC_CMD_DEV_DOWN).U32(NFC_ATTR_DEVICE_INDEX, 0).Finish();
    two.insert(two.end(), second.begin(), second.end());
    talk.Send("two requests at once", two);
  });
}

INSTANTIATE_TEST_SUITE_P(Of, Conformance, testing::Values(Stack::Digital, Stack::Nci),
                         [](const auto& one) { return one.param == Stack::Nci ? "Nci" : "Digital"; });
