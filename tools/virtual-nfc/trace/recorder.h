#pragma once

// Writes down what a server sees, for one program that reads it.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "tools/virtual-nfc/server/netlinkobserver.h"
#include "tools/virtual-nfc/server/virtualnfc.h"
#include "tools/virtual-nfc/trace/record.h"

namespace virtualnfc {

/// Records from construction to destruction, beginning with what is there already. The text that nobody takes
/// is kept up to a limit; beyond it the record ends.
class Recorder : private NetlinkObserver {
 public:
  /// @param count the record ends after so many messages; 0: it does not
  /// @param wake called when there is something to take, by any thread and with locks held: it must return at
  /// once
  Recorder(VirtualNfc& server, std::uint32_t count, std::function<void()> wake);
  ~Recorder() override;
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  /// What has been written since the last call: whole entries. Any thread; does not block.
  /// @param isLast set when nothing will follow; the last line then says why: kRecordDone or an error
  std::string Take(bool& isLast);

 private:
  struct Socket {
    std::uint32_t number = 0;
    std::uint32_t port = 0;
  };

  void OnSocket(std::uint64_t socket, SocketChange change, std::uint32_t number, int error) override;
  void OnSent(std::uint64_t socket, ByteView datagram) override;
  void OnDelivered(std::uint64_t socket, std::uint32_t sender, std::uint32_t groups, ByteView datagram,
                   bool isLost) override;
  void OnReader(std::string_view words) override;

  RecordEntry Entry(EntryKind kind, std::uint64_t socket);
  NetlinkIds IdsOf(std::uint64_t socket);
  void Write(const RecordEntry& entry);

  VirtualNfc& mServer;
  const NetlinkIds mIds;
  const std::uint32_t mCount;
  const std::function<void()> mWake;
  const std::chrono::steady_clock::time_point mStart = std::chrono::steady_clock::now();
  // Only in the observer's calls.
  std::map<std::uint64_t, Socket> mSockets;
  std::uint32_t mNextSocket = 1;
  std::uint32_t mMessages = 0;

  std::mutex mMutex;
  std::string mText;
  bool mEnded = false;
};

/// The line that ends a record of so many messages.
inline constexpr std::string_view kRecordDone = "done";

}  // namespace virtualnfc
