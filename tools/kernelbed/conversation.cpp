#include "tools/kernelbed/conversation.h"

#include <fmt/format.h>
#include <linux/nfc.h>
#include <poll.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <future>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tools/harness/process.h"
#include "tools/virtual-nfc/preload/netlinksocket.h"

using namespace virtualnfc;

namespace {

constexpr std::uint32_t kSequence = 7;

const std::string kBusy = fmt::format("error {}", EBUSY);

struct CommandWord {
  std::uint8_t command;
  bool isDump;
};

const std::map<std::string, CommandWord> kCommands{
    {"device", {NFC_CMD_GET_DEVICE, false}}, {"devices", {NFC_CMD_GET_DEVICE, true}},
    {"targets", {NFC_CMD_GET_TARGET, true}}, {"up", {NFC_CMD_DEV_UP, false}},
    {"down", {NFC_CMD_DEV_DOWN, false}},     {"start", {NFC_CMD_START_POLL, false}},
    {"stop", {NFC_CMD_STOP_POLL, false}},
};

bool IsReadable(int fd, std::chrono::milliseconds limit) {
  pollfd waiting{fd, POLLIN, 0};
  return ::poll(&waiting, 1, static_cast<int>(limit.count())) == 1;
}

std::vector<Bytes> ReceiveAll(int fd) {
  std::vector<Bytes> datagrams;
  for (;;) {
    Bytes datagram(65536);
    const ssize_t length = ::recv(fd, datagram.data(), datagram.size(), MSG_DONTWAIT);
    if (length < 0) {
      return datagrams;
    }
    datagram.resize(static_cast<std::size_t>(length));
    datagrams.push_back(std::move(datagram));
  }
}

/// Equal datagrams give equal text. @param port of the receiving socket, 0 for an event
std::string Describe(const Bytes& datagram, std::uint32_t port) {
  std::string text = fmt::format("{} bytes", datagram.size());
  for (const Bytes& message : SplitMessages(datagram)) {
    const nlmsghdr header = ParseRequest(message).header;
    const ByteView content = ByteView(message).subspan(NLMSG_HDRLEN);
    text +=
        fmt::format(", type {} flags={:#x} seq={} pid={}", header.nlmsg_type, header.nlmsg_flags,
                    header.nlmsg_seq, header.nlmsg_pid == port ? "own" : std::to_string(header.nlmsg_pid));
    std::int32_t code = 0;
    if (header.nlmsg_type == NLMSG_ERROR && content.size() >= sizeof(code)) {
      std::memcpy(&code, content.data(), sizeof(code));
      text += code == 0 ? " ack" : fmt::format(" error {}", -code);
    }
    text += fmt::format(":\n    {:02x}", fmt::join(content, " "));
  }
  return text;
}

/// Runs the operation on a thread that receives signals, which a handler ignores, until it returns.
template <typename Operation>
void UnderSignals(Operation operation) {
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGUSR2, &action, &before);
  std::packaged_task<void()> task(operation);
  auto done = task.get_future();
  std::thread thread(std::move(task));
  // The signal must come after the start of the command; an earlier one has no effect.
  while (done.wait_for(std::chrono::milliseconds(500)) != std::future_status::ready) {
    ::pthread_kill(thread.native_handle(), SIGUSR2);
  }
  thread.join();
  done.get();
  ::sigaction(SIGUSR2, &before, nullptr);
}

}  // namespace

Conversation::Conversation(KernelBench& bench) : mBench(bench) {
  Resolve();
  std::uint32_t group = mIds.group;
  if (::setsockopt(Of('e').socket.Get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof(group)) != 0) {
    throw std::runtime_error("cannot join the group of events");
  }
}

Conversation::~Conversation() {
  mPrograms.clear();
  try {
    Program& last = Of('z');
    (void)Eventually([&] {
      const auto answers = Command(last, {"down"});
      return answers.empty() || answers.front().find(kBusy) == std::string::npos;
    });
  } catch (const std::exception& e) {
    std::fprintf(stderr, "The reader stays on: %s\n", e.what());
  }
}

Conversation::Program& Conversation::Of(char name) {
  Program& program = mPrograms[name];
  if (!program.socket) {
    program.socket = mBench.Socket();
    sockaddr_nl address = MakeNetlinkAddress(0, 0);
    socklen_t length = sizeof(address);
    const int fd = program.socket.Get();
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error(fmt::format("cannot make a netlink socket: {}", std::strerror(errno)));
    }
    program.port = address.nl_pid;
  }
  return program;
}

void Conversation::Resolve() {
  const Bytes question = MessageBuilder(GENL_ID_CTRL, NLM_F_REQUEST, kSequence, 0)
                             .Genl(CTRL_CMD_GETFAMILY, 1)
                             .String(CTRL_ATTR_FAMILY_NAME, NFC_GENL_NAME)
                             .Finish();
  const Program& program = Of('e');
  Write(program, question);
  const std::vector<Bytes> answers = ReceiveAll(program.socket.Get());
  if (answers.empty()) {
    throw std::runtime_error("no answer to the look-up of the family nfc");
  }
  const Request answer = ParseRequest(answers.front());
  const auto id = answer.attributes.find(CTRL_ATTR_FAMILY_ID);
  const auto groups = answer.attributes.find(CTRL_ATTR_MCAST_GROUPS);
  if (id == answer.attributes.end() || groups == answer.attributes.end()) {
    throw std::runtime_error("there is no family nfc");
  }
  std::memcpy(&mIds.family, id->second.data(), sizeof(mIds.family));
  for (const auto& [number, group] : ParseAttributes(groups->second)) {
    mIds.group = GetU32(ParseAttributes(group), CTRL_ATTR_MCAST_GRP_ID).value_or(0);
  }
}

std::vector<std::string> Conversation::Ask(const Program& program, const Bytes& request) {
  Write(program, request);
  std::vector<std::string> answers;
  for (const Bytes& datagram : ReceiveAll(program.socket.Get())) {
    answers.push_back(Describe(datagram, program.port));
  }
  return answers;
}

void Conversation::Write(const Program& program, const Bytes& request) {
  const sockaddr_nl kernel = MakeNetlinkAddress(0, 0);
  if (::sendto(program.socket.Get(), request.data(), request.size(), 0,
               reinterpret_cast<const sockaddr*>(&kernel), sizeof(kernel)) < 0) {
    throw std::runtime_error(fmt::format("cannot ask the kernel: {}", std::strerror(errno)));
  }
}

void Conversation::Note(const std::string& what, const std::vector<std::string>& answers) {
  mHeard.push_back(answers.empty() ? fmt::format("{}: nothing", what)
                                   : fmt::format("{}:\n  {}", what, fmt::join(answers, "\n  ")));
}

std::vector<std::string> Conversation::Command(Program& program, const std::vector<std::string>& words) {
  const CommandWord& word = kCommands.at(words[0]);
  const std::uint16_t flags = NLM_F_REQUEST | NLM_F_ACK | (word.isDump ? NLM_F_DUMP : 0);
  MessageBuilder request(mIds.family, flags, kSequence, 0);
  request.Genl(word.command, 1).U32(NFC_ATTR_DEVICE_INDEX, 0);
  if (word.command == NFC_CMD_START_POLL) {
    const std::string mask = words.size() > 1 ? words[1].substr(std::string("mask=").size()) : "0xFC";
    request.U32(NFC_ATTR_PROTOCOLS, static_cast<std::uint32_t>(std::stoul(mask, nullptr, 0)));
  }
  return Ask(program, request.Finish());
}

void Conversation::Send(const std::string& name, const Bytes& bytes) {
  Note(name, Ask(Of('a'), bytes));
}

void Conversation::AwaitEvent() {
  const Program& listener = Of('e');
  if (!IsReadable(listener.socket.Get(), kLongestWait)) {
    throw std::runtime_error("no event comes");
  }
  Bytes datagram(65536);
  const ssize_t length = ::recv(listener.socket.Get(), datagram.data(), datagram.size(), MSG_DONTWAIT);
  datagram.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  Note("event", {Describe(datagram, 0)});
}

void Conversation::Do(const std::string& step) {
  std::istringstream stream(step);
  std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
  if (step == "event") {
    AwaitEvent();
  } else if (step == "silence") {
    if (IsReadable(Of('e').socket.Get(), mBench.TimeToFind())) {
      AwaitEvent();
    }
  } else if (words[0] == "pause") {
    std::this_thread::sleep_for(mBench.TimeToSettle() * (words.size() > 1 ? std::stoi(words[1]) : 1));
  } else if (words[0] == "tags") {
    mBench.PutTags({words.begin() + 1, words.end()});
  } else if (step == "plug") {
    mBench.Plug();
  } else if (step == "unplug") {
    mBench.Unplug();
  } else if (words[0].size() > 1) {
    mBench.GoWrong(step);
  } else if (words[1] == "close") {
    mPrograms.erase(words[0][0]);
  } else {
    Program& program = Of(words[0][0]);
    const std::string how = words[1];
    const bool isSpecial = how == "~" || how == "!";
    words.erase(words.begin(), words.begin() + (isSpecial ? 2 : 1));
    std::vector<std::string> answers;
    const auto ask = [&] { answers = Command(program, words); };
    if (how == "!") {
      UnderSignals(ask);
    } else if (how == "~") {
      (void)Eventually([&] {
        ask();
        return answers.empty() || answers.front().find(kBusy) == std::string::npos;
      });
    } else {
      ask();
    }
    Note(step, answers);
  }
}
