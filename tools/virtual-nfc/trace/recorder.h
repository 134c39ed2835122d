#pragma once

// Writes down what a server sees, as text for people.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "tools/virtual-nfc/server/netlinkobserver.h"
#include "tools/virtual-nfc/server/virtualnfc.h"

namespace virtualnfc {

/// Records from construction to destruction, beginning with the existing sockets. It keeps the text until it
/// is taken, up to a limit; the record ends when the limit is exceeded.
class Recorder : private NetlinkObserver {
 public:
  /// @param count the record ends after this many messages; 0: no limit
  /// @param wake called when there is text to take, by any thread and with locks held: it must return at once
  Recorder(VirtualNfc& server, std::uint32_t count, std::function<void()> wake);
  ~Recorder() override;
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  /// Returns the lines written since the last call. Any thread; does not block.
  /// @param isLast set when nothing will follow; the last line then is kRecordDone or begins with
  /// kRecordError
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
  Socket& Of(std::uint64_t socket);
  void WriteDatagram(std::uint64_t socket, const char* arrow, ByteView datagram, bool isEvent,
                     const std::string& remarks);
  void Write(const std::string& text, std::size_t messages = 0);

  VirtualNfc& mServer;
  const KernelSettings mKernel;
  const std::uint32_t mCount;
  const std::function<void()> mWake;
  const std::chrono::steady_clock::time_point mStart = std::chrono::steady_clock::now();
  // Used only by the observer's calls.
  std::map<std::uint64_t, Socket> mSockets;
  std::uint32_t mNextSocket = 1;
  std::size_t mMessages = 0;

  std::mutex mMutex;
  std::string mText;
  bool mEnded = false;
};

inline constexpr std::string_view kRecordDone = "# done\n";
inline constexpr std::string_view kRecordError = "# error: ";

}  // namespace virtualnfc
