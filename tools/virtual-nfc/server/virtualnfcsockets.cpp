// The part of the server that handles the programs' sockets.

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>

#include "tools/virtual-nfc/server/controlprotocol.h"
#include "tools/virtual-nfc/server/virtualnfc.h"

namespace virtualnfc {

/// When the process id is taken, the kernel looks for a free port downwards from here.
static constexpr std::uint32_t kHighestSparePort = 0xFFFFF000;

bool VirtualNfc::IsPortTaken(std::uint32_t port) const {
  return std::any_of(mConnections.begin(), mConnections.end(),
                     [port](const auto& entry) { return entry.second->port == port; });
}

int VirtualNfc::Bind(std::uint64_t id, std::uint32_t wanted) {
  NetlinkPort& socket = *mConnections.at(id);
  if (socket.port == 0) {
    std::uint32_t port = wanted;
    if (wanted == 0) {
      port = socket.ProcessId();
      for (std::uint32_t spare = kHighestSparePort; IsPortTaken(port); --spare) {
        port = spare;
      }
    } else if (IsPortTaken(wanted)) {
      return EADDRINUSE;
    }
    socket.port = port;
  } else if (wanted != 0 && wanted != socket.port) {
    return EINVAL;
  }
  return 0;
}

int VirtualNfc::Join(NetlinkPort& socket, std::uint32_t group) const {
  if (group == mSettings.kernel.groupId) {
    socket.listens = mSettings.kernel.admitsListeners;
    return socket.listens ? 0 : EPERM;
  }
  return group == kControllerGroupId ? 0 : ENOENT;
}

void VirtualNfc::HandleRecord(std::uint64_t id, const Bytes& record) {
  NetlinkPort& socket = *mConnections.at(id);
  wire::OperationHeader header{};
  if (record.size() < sizeof(header)) {
    CloseConnection(id);
    return;
  }
  std::copy_n(record.begin(), sizeof(header), reinterpret_cast<std::uint8_t*>(&header));
  switch (header.operation) {
    case wire::Operation::Open:
      if (socket.Open(header.argument) != 0) {
        CloseConnection(id);
      }
      return;
    case wire::Operation::Bind:
      socket.Reply(Bind(id, header.argument));
      return;
    case wire::Operation::Join:
      socket.Reply(Join(socket, header.argument));
      return;
    case wire::Operation::ReceiveBuffer:
      socket.SetReceiveBuffer(header.argument);
      socket.Reply(0);
      return;
    case wire::Operation::Interrupt:
      Interrupt(id);
      return;
    case wire::Operation::Send:
      Enqueue(id, ByteView(record).subspan(sizeof(header)));
      return;
    case wire::Operation::Control:
      mControlLines.emplace_back(id, std::string(record.begin() + sizeof(header), record.end()));
      return;
  }
  CloseConnection(id);
}

void VirtualNfc::Enqueue(std::uint64_t id, ByteView datagram) {
  const NetlinkPort& socket = *mConnections.at(id);
  if (const int error = Bind(id, 0); error != 0) {
    socket.Reply(error);
    return;
  }
  mSettings.watch(Traffic::Request, datagram);
  std::vector<Bytes> messages = SplitMessages(datagram);
  for (std::size_t i = 0; i < messages.size(); ++i) {
    mWork.push_back({id, std::move(messages[i]), i + 1 == messages.size()});
  }
  if (messages.empty()) {
    socket.Reply(0);
  }
}

void VirtualNfc::ServeControl(std::unique_lock<std::mutex>& lock) {
  for (const auto& [id, line] : std::exchange(mControlLines, {})) {
    lock.unlock();
    const std::string reply = HandleControlLine(*this, line);
    lock.lock();
    if (const auto asker = mConnections.find(id); asker != mConnections.end()) {
      asker->second->ReplyText(reply);
    }
  }
}

void VirtualNfc::CloseConnection(std::uint64_t id) {
  // A process that is killed while its command waits has got a signal.
  Interrupt(id);
  const auto connection = mConnections.find(id);
  if (connection == mConnections.end()) {
    // A rule has closed it, for that command or while another connection was closed.
    return;
  }
  const std::uint32_t port = connection->second->port;
  mConnections.erase(connection);
  if (port != 0 && mSettings.ownerReleaseDelay.count() == 0) {
    ReleasePoll(port);
  } else if (port != 0) {
    mClosedPorts.push_back(port);
    mTimers.emplace(Clock::now() + mSettings.ownerReleaseDelay, [this, port] { ReleasePoll(port); });
  }
}

void VirtualNfc::ReleasePoll(std::uint32_t port) {
  for (const auto& device : mKernel.Devices()) {
    (void)device->StopPoll(port);
  }
}

void VirtualNfc::EndPollsOfClosedSockets() {
  const std::lock_guard lock(mMutex);
  for (const auto port : std::exchange(mClosedPorts, {})) {
    ReleasePoll(port);
  }
  Changed();
}

void VirtualNfc::ReadConnections() {
  std::vector<std::pair<std::uint64_t, Bytes>> records;
  std::set<std::uint64_t> ended;
  Bytes buffer(sizeof(wire::OperationHeader) + wire::kMaxMessage);
  // A program may close one socket and then use another. To keep this order, read until nothing more comes,
  // then close, then carry out.
  for (bool isMore = true; isMore;) {
    isMore = false;
    for (const auto& [id, socket] : mConnections) {
      const ssize_t length =
          ended.contains(id) ? 0 : ::recv(socket->ControlFd(), buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (length > 0) {
        records.emplace_back(id, Bytes(buffer.begin(), buffer.begin() + length));
        isMore = true;
      } else if (length == 0 || errno != EAGAIN) {
        isMore = ended.insert(id).second || isMore;
      }
    }
  }
  for (const std::uint64_t id : ended) {
    CloseConnection(id);
  }
  for (const auto& [id, record] : records) {
    if (mConnections.contains(id)) {
      HandleRecord(id, record);
    }
  }
}

}  // namespace virtualnfc
