#pragma once

#include <chrono>
#include <cstdint>
#include <fstream>
#include <map>
#include <string>
#include <string_view>

#include "tools/virtual-nfc/server/netlinkobserver.h"
#include "tools/virtual-nfc/server/virtualnfc.h"

namespace virtualnfc {

/// Writes down what a server sees, as text for people, from construction to destruction. Begins with the
/// sockets that are open already.
class Recorder : private NetlinkObserver {
 public:
  /// @param file is replaced. It must take text at once: the server waits for it
  /// @throws std::runtime_error when it cannot be opened
  Recorder(VirtualNfc& server, const std::string& file);
  ~Recorder() override;
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

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
  void Write(std::string_view text);

  VirtualNfc& mServer;
  const KernelSettings mKernel;
  const std::chrono::steady_clock::time_point mStart = std::chrono::steady_clock::now();
  std::ofstream mFile;
  std::map<std::uint64_t, Socket> mSockets;
  std::uint32_t mNextSocket = 1;
};

}  // namespace virtualnfc
