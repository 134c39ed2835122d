#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "controlserver.h"
#include "replay.h"

namespace virtualnfc {

namespace {

class ServerTarget : public ReplayTarget {
 public:
  explicit ServerTarget(std::string address) : mAddress(std::move(address)) {}

  std::shared_ptr<NetlinkChannel> Open() override { return OpenSimulated(mAddress); }
  std::string AtReader(const std::string& words) override {
    const std::string reply = AskServer(mAddress, words);
    if (reply.empty()) throw NoKernel(std::generic_category().message(errno));
    return reply.starts_with("ok\n") ? "" : reply.substr(0, reply.find('\n'));
  }
  bool IsReal() const override { return false; }
  std::chrono::seconds Patience() const override { return std::chrono::seconds(5); }

 private:
  const std::string mAddress;
};

class OwnKernelTarget : public ReplayTarget {
 public:
  std::shared_ptr<NetlinkChannel> Open() override { return OpenOwnKernel(); }
  std::string AtReader(const std::string& words) override {
    fmt::print(stderr, "Please: {}. Then press Enter.\n", InWords(words));
    constexpr int kPatienceMs = 120 * 1000;
    pollfd waiting{STDIN_FILENO, POLLIN, 0};
    if (::poll(&waiting, 1, kPatienceMs) <= 0) return "nobody pressed Enter for two minutes";
    for (char byte = 0; byte != '\n' && ::read(STDIN_FILENO, &byte, 1) == 1;) {
    }
    return "";
  }
  bool IsReal() const override { return true; }
  /// A chip may be silent for 30 s before the kernel gives it up.
  std::chrono::seconds Patience() const override { return std::chrono::seconds(35); }

 private:
  static std::string InWords(const std::string& words) {
    if (words.starts_with("tap ")) return fmt::format("hold the card {} to the reader", words.substr(4));
    return words == "remove" ? "take all cards away" : fmt::format("{} the reader", words);
  }
};

}  // namespace

void RequireForOwnKernel(const Record& record) {
  for (const RecordEntry& entry : record.entries) {
    if (entry.words.starts_with("rule ")) throw RecordError(entry.number, "a real kernel knows no rules");
    for (const MessageText& message : entry.messages) {
      const bool isOurs = message.head.starts_with("nfc ") || message.head.starts_with("nlctrl ");
      if (entry.kind == EntryKind::Request && !isOurs) {
        throw RecordError(message.number, "for another family than nfc, and not sent to a real kernel");
      }
    }
  }
}

std::unique_ptr<ReplayTarget> ReplayOnServer(std::string address) {
  return std::make_unique<ServerTarget>(std::move(address));
}

std::unique_ptr<ReplayTarget> ReplayOnOwnKernel() {
  return std::make_unique<OwnKernelTarget>();
}

}  // namespace virtualnfc
