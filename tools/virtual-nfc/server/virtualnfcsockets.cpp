// The part of the server that handles the programs' sockets and the observers.

#include <fmt/format.h>
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

void VirtualNfc::AddObserver(NetlinkObserver& observer) {
  const std::lock_guard lock(mMutex);
  mObservers.push_back(&observer);
  for (const auto& [id, socket] : mConnections) {
    if (!socket->IsOpen()) {
      continue;
    }
    observer.OnSocket(id, SocketChange::Opened, 0, 0);
    if (socket->port != 0) {
      observer.OnSocket(id, SocketChange::Bound, socket->port, 0);
    }
    for (const std::uint32_t group : socket->groups) {
      observer.OnSocket(id, SocketChange::Joined, group, 0);
    }
  }
}

void VirtualNfc::RemoveObserver(NetlinkObserver& observer) {
  const std::lock_guard lock(mMutex);
  std::erase(mObservers, &observer);
}

void VirtualNfc::TellOfSocket(std::uint64_t id, SocketChange change, std::uint32_t number, int error) {
  for (NetlinkObserver* observer : mObservers) {
    observer->OnSocket(id, change, number, error);
  }
}

void VirtualNfc::TellOfReader(std::string_view words) {
  for (NetlinkObserver* observer : mObservers) {
    observer->OnReader(words);
  }
}

void VirtualNfc::ChangeField(std::vector<Tag> tags) {
  mField = std::move(tags);
  const bool isOne = mField.size() == 1 && !mField.front().words.empty();
  TellOfReader(mField.empty() ? "remove"
               : isOne        ? "tap " + mField.front().words
                              : fmt::format("# {} tags", mField.size()));
}

bool VirtualNfc::IsPortTaken(std::uint32_t port) const {
  return std::any_of(mConnections.begin(), mConnections.end(),
                     [port](const auto& entry) { return entry.second->port == port; });
}

int VirtualNfc::Bind(std::uint64_t id, std::uint32_t wanted, std::uint32_t groups) {
  NetlinkPort& socket = *mConnections.at(id);
  if (socket.port == 0) {
    std::uint32_t port = wanted;
    if (wanted == 0) {
      port = static_cast<std::uint32_t>(socket.ProcessId());
      for (std::uint32_t spare = kHighestSparePort; IsPortTaken(port); --spare) {
        port = spare;
      }
    } else if (IsPortTaken(wanted)) {
      return EADDRINUSE;
    }
    socket.port = port;
    TellOfSocket(id, SocketChange::Bound, port);
  } else if (wanted != 0 && wanted != socket.port) {
    return EINVAL;
  }
  for (std::uint32_t bit = 0; bit < 32; ++bit) {
    if ((groups & (std::uint32_t{1} << bit)) != 0) {
      if (const int error = Join(id, bit + 1); error != 0) {
        return error;
      }
    }
  }
  return 0;
}

int VirtualNfc::Join(std::uint64_t id, std::uint32_t group) {
  const bool isKnown =
      group == kControllerGroupId || (mSettings.kernel.hasFamily && group == mSettings.kernel.groupId);
  const bool isOpen = group == kControllerGroupId || mSettings.kernel.admitsListeners;
  const int error = !isKnown ? ENOENT : isOpen ? 0 : EPERM;
  if (error == 0) {
    mConnections.at(id)->groups.insert(group);
  }
  TellOfSocket(id, SocketChange::Joined, group, error);
  return error;
}

void VirtualNfc::HandleRecord(std::uint64_t id, const Bytes& record) {
  NetlinkPort& socket = *mConnections.at(id);
  wire::OperationHeader header{};
  if (record.size() < sizeof(header)) {
    CloseConnection(id);
    return;
  }
  std::copy_n(record.begin(), sizeof(header), reinterpret_cast<std::uint8_t*>(&header));
  const bool isFirst =
      header.operation == wire::Operation::Open || header.operation == wire::Operation::Control;
  if (isFirst == socket.IsOpen()) {
    CloseConnection(id);
    return;
  }
  switch (header.operation) {
    case wire::Operation::Open:
      if (socket.Open() != 0) {
        CloseConnection(id);
        return;
      }
      TellOfSocket(id, SocketChange::Opened);
      return;
    case wire::Operation::Bind:
      socket.Reply(Bind(id, header.first, header.second));
      return;
    case wire::Operation::Join:
      socket.Reply(Join(id, header.first));
      return;
    case wire::Operation::Leave:
      socket.groups.erase(header.first);
      TellOfSocket(id, SocketChange::Left, header.first);
      socket.Reply(0);
      return;
    case wire::Operation::ReceiveBuffer:
      socket.SetReceiveBuffer(header.first);
      socket.Reply(0);
      return;
    case wire::Operation::Interrupt:
      TellOfSocket(id, SocketChange::Interrupted);
      if (mWaiting && mWaiting->work.connection == id && !mHung &&
          mKernel.IsInterruptible(mWaiting->request)) {
        FinishWaiting(true);
      }
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
  if (const int error = Bind(id, 0, 0); error != 0) {
    socket.Reply(error);
    return;
  }
  for (NetlinkObserver* observer : mObservers) {
    observer->OnSent(id, datagram);
  }
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
  if (!mConnections.contains(id)) {
    // A rule has closed it while another connection was closed.
    return;
  }
  const std::uint32_t port = mConnections.at(id)->port;
  if (mWaiting && mWaiting->work.connection == id && !mHung && mKernel.IsInterruptible(mWaiting->request)) {
    // The process was killed while its command waited, which counts as a signal.
    TellOfSocket(id, SocketChange::Interrupted);
    FinishWaiting(true);
  }
  const auto connection = mConnections.find(id);
  if (connection == mConnections.end()) {
    // A rule for that command has closed the connection.
    return;
  }
  if (connection->second->IsOpen()) {
    TellOfSocket(id, SocketChange::Closed);
  }
  mConnections.erase(connection);
  if (port != 0 && mSettings.ownerReleaseDelay.count() == 0) {
    ReleasePoll(port);
  } else if (port != 0) {
    mClosedPorts.push_back(port);
    mTimers.After(mSettings.ownerReleaseDelay, [this, port] { ReleasePoll(port); });
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

/// Closes the socket although the program still uses it.
void VirtualNfc::BreakConnection(std::uint64_t id) {
  if (const auto connection = mConnections.find(id); connection != mConnections.end()) {
    connection->second->Close();
    CloseConnection(id);
  }
}

void VirtualNfc::AcceptConnections() {
  while (UniqueFd control = mListener.Accept()) {
    mConnections.emplace(mNextConnection++, std::make_unique<NetlinkPort>(std::move(control)));
  }
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
