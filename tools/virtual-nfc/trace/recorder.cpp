#include "tools/virtual-nfc/trace/recorder.h"

#include <fmt/format.h>

#include <utility>

namespace virtualnfc {

namespace {

constexpr std::size_t kMaxText = 1 << 20;

EntryKind KindOf(SocketChange change) {
  switch (change) {
    case SocketChange::Opened:
      return EntryKind::Open;
    case SocketChange::Bound:
      return EntryKind::Port;
    case SocketChange::Joined:
      return EntryKind::Join;
    case SocketChange::Left:
      return EntryKind::Leave;
    case SocketChange::Interrupted:
      return EntryKind::Signal;
    case SocketChange::Closed:
      return EntryKind::Close;
  }
  return EntryKind::Close;
}

NetlinkIds IdsOfKernel(const KernelSettings& kernel) {
  return {kernel.hasFamily ? kernel.familyId : std::uint16_t{0}, kernel.hasFamily ? kernel.groupId : 0, 0};
}

}  // namespace

Recorder::Recorder(VirtualNfc& server, std::uint32_t count, std::function<void()> wake)
    : mServer(server), mIds(IdsOfKernel(server.Settings().kernel)), mCount(count), mWake(std::move(wake)) {
  mText = FormatRecordHead(mIds);
  mServer.AddObserver(*this);
}

Recorder::~Recorder() {
  mServer.RemoveObserver(*this);
}

std::string Recorder::Take(bool& isLast) {
  const std::lock_guard lock(mMutex);
  isLast = mEnded;
  return std::exchange(mText, {});
}

RecordEntry Recorder::Entry(EntryKind kind, std::uint64_t socket) {
  RecordEntry entry;
  entry.kind = kind;
  entry.time =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - mStart);
  if (kind != EntryKind::Reader) {
    Socket& known = mSockets[socket];
    if (known.number == 0) known.number = mNextSocket++;
    entry.socket = known.number;
  }
  return entry;
}

NetlinkIds Recorder::IdsOf(std::uint64_t socket) {
  NetlinkIds ids = mIds;
  ids.port = mSockets[socket].port;
  return ids;
}

void Recorder::Write(const RecordEntry& entry) {
  const std::string text = FormatEntry(entry);
  const std::lock_guard lock(mMutex);
  if (mEnded) return;
  mMessages += static_cast<std::uint32_t>(entry.messages.size());
  mText += text;
  if (mText.size() > kMaxText) {
    mEnded = true;
    mText += "error: the record ends here: what was recorded is not read fast enough\n";
  } else if (mCount != 0 && mMessages >= mCount) {
    mEnded = true;
    mText += fmt::format("{}\n", kRecordDone);
  }
  mWake();
}

void Recorder::OnSocket(std::uint64_t socket, SocketChange change, std::uint32_t number, int error) {
  RecordEntry entry = Entry(KindOf(change), socket);
  switch (change) {
    case SocketChange::Bound:
      mSockets[socket].port = number;
      entry.port = number;
      break;
    case SocketChange::Joined:
    case SocketChange::Left:
      entry.words = GroupText(number, mIds);
      entry.error = error;
      break;
    case SocketChange::Closed:
      mSockets.erase(socket);
      break;
    case SocketChange::Opened:
    case SocketChange::Interrupted:
      break;
  }
  Write(entry);
}

void Recorder::OnSent(std::uint64_t socket, ByteView datagram) {
  RecordEntry entry = Entry(EntryKind::Request, socket);
  entry.messages = DescribeDatagram(datagram, IdsOf(socket), false);
  Write(entry);
}

void Recorder::OnDelivered(std::uint64_t socket, std::uint32_t sender, std::uint32_t groups,
                           ByteView datagram, bool isLost) {
  RecordEntry entry = Entry(EntryKind::Delivery, socket);
  entry.sender = sender;
  entry.isEvent = groups != 0;
  entry.isLost = isLost;
  entry.messages = DescribeDatagram(datagram, IdsOf(socket), entry.isEvent);
  Write(entry);
}

void Recorder::OnReader(std::string_view words) {
  RecordEntry entry = Entry(EntryKind::Reader, 0);
  entry.words = words;
  Write(entry);
}

}  // namespace virtualnfc
