#include "replay.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>

#include "valuetext.h"

namespace virtualnfc {

namespace {

using std::chrono::milliseconds;

/// What no command of its own takes.
constexpr milliseconds kGrace{20};
/// How long is looked for something that should not come.
constexpr milliseconds kSilence{100};

}  // namespace

Replay::Replay(const Record& record, ReplayTarget& target, double speed,
               std::function<void(const Difference&)> report)
    : mRecord(record), mTarget(target), mSpeed(speed), mReport(std::move(report)), mIds(record.ids) {
  LearnIds();
}

void Replay::Report(std::size_t line, std::string text) {
  ++mResult.differences;
  mReport({line, std::move(text)});
}

/// Asks for the family as a program would. A kernel that has none is asked by the recorded number.
void Replay::LearnIds() {
  auto channel = mTarget.Open();
  if (!channel) {
    throw NoKernel(std::generic_category().message(errno));
  }
  ReplaySocket socket(channel);
  const Bytes question = MessageBuilder(GENL_ID_CTRL, NLM_F_REQUEST, 1, 0)
                             .Genl(CTRL_CMD_GETFAMILY, 1)
                             .String(CTRL_ATTR_FAMILY_NAME, "nfc")
                             .Finish();
  socket.Start([question](NetlinkChannel& to) { return to.Send(question); });
  const auto deadline = Clock::now() + mTarget.Patience();
  const auto error = socket.WaitForEnd(deadline);
  const Datagram* datagram = error == 0 ? socket.Peek(0, deadline) : nullptr;
  if (datagram == nullptr) {
    throw NoKernel(error.value_or(0) != 0 ? std::generic_category().message(*error)
                                          : "no answer to GETFAMILY");
  }
  const Request answer = ParseRequest(datagram->bytes);
  const auto id = answer.attributes.find(CTRL_ATTR_FAMILY_ID);
  const auto groups = answer.attributes.find(CTRL_ATTR_MCAST_GROUPS);
  if (answer.header.nlmsg_type != GENL_ID_CTRL || id == answer.attributes.end() ||
      id->second.size() != sizeof(mIds.family) || groups == answer.attributes.end()) {
    if (mTarget.IsReal()) throw NoKernel("it has no family \"nfc\"");
    return;
  }
  std::memcpy(&mIds.family, id->second.data(), sizeof(mIds.family));
  for (const auto& [index, group] : ParseAttributes(groups->second)) {
    const auto attributes = ParseAttributes(group);
    const auto name = attributes.find(CTRL_ATTR_MCAST_GRP_NAME);
    // With its zero.
    constexpr std::string_view kEvents = "events";
    if (name != attributes.end() && name->second.size() == kEvents.size() + 1 &&
        std::equal(kEvents.begin(), kEvents.end(), name->second.begin())) {
      mIds.group = GetU32(attributes, CTRL_ATTR_MCAST_GRP_ID).value_or(mIds.group);
    }
  }
}

ReplayResult Replay::Run() {
  milliseconds before{0};
  for (std::size_t i = 0; i < mRecord.entries.size(); ++i) {
    const RecordEntry& entry = mRecord.entries[i];
    const auto scaled = [this](milliseconds time) {
      return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(time) /
                                                         mSpeed);
    };
    // As far from what went before as it was then: what the chip needs time for shall have it.
    const Clock::time_point due = Clock::now() + scaled(entry.time - before);
    before = entry.time;
    if (entry.kind == EntryKind::Delivery) {
      Receive(i, due + mTarget.Patience());
    } else {
      std::this_thread::sleep_until(due);
      const bool isLast = i + 1 == mRecord.entries.size();
      Act(entry, isLast ? Clock::duration(0) : scaled(mRecord.entries[i + 1].time - entry.time));
    }
  }
  const std::size_t end = mRecord.entries.empty() ? 1 : mRecord.entries.back().number;
  while (!mSockets.empty()) {
    Close(end, mSockets.begin()->first);
  }
  return mResult;
}

void Replay::Act(const RecordEntry& entry, Clock::duration untilNext) {
  if (entry.kind == EntryKind::Reader) {
    if (const std::string reason = mTarget.AtReader(WithPorts(entry.words)); !reason.empty()) {
      Report(entry.number, fmt::format("{}: {}", entry.words, reason));
    }
    return;
  }
  if (entry.kind == EntryKind::Open) {
    auto channel = mTarget.Open();
    if (!channel) throw NoKernel(std::generic_category().message(errno));
    mSockets[entry.socket].socket = std::make_unique<ReplaySocket>(std::move(channel));
    return;
  }
  ReplaySocket& socket = *mSockets.at(entry.socket).socket;
  if (entry.kind == EntryKind::Signal) {
    socket.Signal();
    return;
  }
  if (entry.kind == EntryKind::Close) {
    Close(entry.number, entry.socket);
    return;
  }
  if (!socket.WaitForEnd(Clock::now() + mTarget.Patience())) {
    Report(entry.number, fmt::format("#{} waits in the kernel still, this is left out", entry.socket));
    return;
  }
  int expected = 0;
  auto patience = Clock::duration(mTarget.Patience());
  if (entry.kind == EntryKind::Request) {
    NetlinkIds ids = mIds;
    ids.port = socket.Port();
    socket.Start(
        [bytes = BuildDatagram(entry.messages, ids, false)](NetlinkChannel& to) { return to.Send(bytes); });
    mResult.sent += entry.messages.size();
    // What happened while the command waited shall happen while it waits.
    patience = untilNext + kGrace;
  } else if (entry.kind == EntryKind::Port) {
    socket.Start([](NetlinkChannel& to) { return to.Bind(); });
  } else {
    const std::uint32_t group = GroupNumber(entry.words, mIds, entry.number);
    const bool joins = entry.kind == EntryKind::Join;
    socket.Start([group, joins](NetlinkChannel& to) { return joins ? to.Join(group) : to.Leave(group); });
    expected = entry.error;
  }
  const auto result = socket.WaitForEnd(Clock::now() + patience);
  if (result == ECONNREFUSED && !mTarget.Open()) {
    throw NoKernel("it has ended");
  }
  if (result && *result != expected) {
    Report(entry.number,
           fmt::format("answered {}, recorded {}", DescribeCode(-*result), DescribeCode(-expected)));
  }
}

std::string Replay::WithPorts(const std::string& words) const {
  return ReplacePort(words, [this](std::string_view port) {
    for (const auto& [number, socket] : mSockets) {
      if (port == fmt::format("#{}", number)) return std::to_string(socket.socket->Port());
    }
    return std::string(port);
  });
}

/// What it has received beyond the record is a difference.
void Replay::Close(std::size_t line, std::uint32_t number) {
  const auto known = mSockets.find(number);
  ReplaySocket& socket = *known->second.socket;
  while (const Datagram* datagram = socket.Peek(0, Clock::now() + kSilence)) {
    ReportExtra(line, number, Describe(socket, *datagram));
    socket.Drop();
  }
  mSockets.erase(known);
}

void Replay::ReportExtra(std::size_t line, std::uint32_t number, std::span<const MessageText> messages) {
  for (const MessageText& message : messages) {
    Report(line, fmt::format("not recorded: #{} <- {}", number, message.head));
  }
}

std::vector<MessageText> Replay::Describe(const ReplaySocket& socket, const Datagram& datagram) const {
  NetlinkIds ids = mIds;
  ids.port = socket.Port();
  return DescribeDatagram(datagram.bytes, ids, datagram.groups != 0);
}

const RecordEntry* Replay::NextDelivery(std::size_t index) const {
  const RecordEntry& entry = mRecord.entries[index];
  for (std::size_t i = index + 1; i < mRecord.entries.size(); ++i) {
    const RecordEntry& other = mRecord.entries[i];
    if (other.socket == entry.socket && other.kind == EntryKind::Delivery) return &other;
    if (other.socket == entry.socket && other.kind == EntryKind::Close) return nullptr;
  }
  return nullptr;
}

void Replay::Receive(std::size_t index, Clock::time_point deadline) {
  const RecordEntry& entry = mRecord.entries[index];
  Socket& known = mSockets.at(entry.socket);
  ReplaySocket& socket = *known.socket;
  mResult.compared += entry.messages.size();
  const auto kindOf = [&](const Datagram& datagram) {
    return KindOfMessage(Describe(socket, datagram).front());
  };
  const std::string wanted = KindOfMessage(entry.messages.front());
  const Datagram* datagram = socket.Peek(0, known.hasMissed ? Clock::now() + kSilence : deadline);
  const RecordEntry* next = NextDelivery(index);
  if (datagram == nullptr || (kindOf(*datagram) != wanted && next != nullptr &&
                              kindOf(*datagram) == KindOfMessage(next->messages.front()))) {
    known.hasMissed = known.hasMissed || datagram == nullptr;
    Report(entry.number, fmt::format("missing: {}", EntryTitle(entry, entry.messages.front())));
    return;
  }
  if (kindOf(*datagram) != wanted) {
    const Datagram* second = socket.Peek(1, Clock::now() + kSilence);
    if (second != nullptr && kindOf(*second) == wanted) {
      ReportExtra(entry.number, entry.socket, Describe(socket, *socket.Peek(0, Clock::now())));
      socket.Drop();
    }
  }
  Compare(entry, *socket.Peek(0, Clock::now()));
  socket.Drop();
}

void Replay::Compare(const RecordEntry& entry, const Datagram& datagram) {
  const ReplaySocket& socket = *mSockets.at(entry.socket).socket;
  if (datagram.sender != entry.sender) {
    Report(entry.number, fmt::format("sender is {}, recorded {}", datagram.sender, entry.sender));
  }
  const std::uint32_t groups = entry.isEvent ? mIds.GroupMask() : 0;
  if (datagram.groups != groups) {
    Report(entry.number, fmt::format("sent to the groups {:#x} instead of {:#x}", datagram.groups, groups));
  }
  for (Difference& difference : CompareDatagrams(entry.messages, Describe(socket, datagram))) {
    Report(difference.line, std::move(difference.text));
  }
}

}  // namespace virtualnfc
