#include "tools/virtual-nfc/trace/recorder.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "tools/virtual-nfc/kernel/names.h"
#include "tools/virtual-nfc/trace/netlinktext.h"

namespace virtualnfc {

namespace {

/// In the order of SocketChange.
constexpr const char* kChangeNames[] = {"open", "port", "join", "leave", "signal", "close"};

}  // namespace

Recorder::Recorder(VirtualNfc& server, const std::string& file)
    : mServer(server), mKernel(server.Settings().kernel), mFile(file) {
  if (!mFile) {
    throw std::runtime_error(
        fmt::format("cannot record to {}: {}", file, std::generic_category().message(errno)));
  }
  Write(fmt::format("# virtual-nfc record: nfc={} nfc.events={}", mKernel.familyId, mKernel.groupId));
  mServer.AddObserver(*this);
}

Recorder::~Recorder() {
  mServer.RemoveObserver(*this);
}

Recorder::Socket& Recorder::Of(std::uint64_t socket) {
  Socket& known = mSockets[socket];
  if (known.number == 0) {
    known.number = mNextSocket++;
  }
  return known;
}

void Recorder::Write(std::string_view text) {
  if (!mFile) {
    return;
  }
  if (!text.starts_with("# ")) {
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - mStart;
    mFile << fmt::format("{:.3f} ", time.count());
  }
  if (!(mFile << text << std::endl)) {
    fmt::print(stderr, "virtual-nfc: cannot write the record, so it ends\n");
  }
}

void Recorder::OnSocket(std::uint64_t socket, SocketChange change, std::uint32_t number, int error) {
  Socket& known = Of(socket);
  std::string text = fmt::format("#{} {}", known.number, kChangeNames[static_cast<std::size_t>(change)]);
  if (change == SocketChange::Bound) {
    known.port = number;
    text += fmt::format(" {}", number);
  } else if (change == SocketChange::Joined || change == SocketChange::Left) {
    text += number == mKernel.groupId ? " nfc.events" : fmt::format(" {}", number);
    text += error != 0 ? " " + ErrorName(error) : "";
  } else if (change == SocketChange::Closed) {
    mSockets.erase(socket);
  }
  Write(text);
}

void Recorder::WriteDatagram(std::uint64_t socket, const char* arrow, ByteView datagram, bool isEvent,
                             const std::string& remarks) {
  const Socket& known = Of(socket);
  const auto messages = DescribeDatagram(datagram, mKernel.familyId, isEvent ? 0 : known.port);
  for (std::string message : messages) {
    message.insert(std::min(message.find('\n'), message.size()), remarks);
    Write(fmt::format("#{} {} {}", known.number, arrow, message));
  }
}

void Recorder::OnSent(std::uint64_t socket, ByteView datagram) {
  WriteDatagram(socket, "->", datagram, false, "");
}

void Recorder::OnDelivered(std::uint64_t socket, std::uint32_t sender, std::uint32_t groups,
                           ByteView datagram, bool isLost) {
  WriteDatagram(socket, "<-", datagram, groups != 0,
                (groups != 0 ? " group=nfc.events" : "") +
                    (sender != 0 ? fmt::format(" sender={}", sender) : "") + (isLost ? " lost" : ""));
}

void Recorder::OnReader(std::string_view words) {
  Write(words);
}

}  // namespace virtualnfc
