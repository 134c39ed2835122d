#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tools/virtual-nfc/server/unixsocket.h"
#include "tools/virtual-nfc/server/virtualnfc.h"
#include "tools/virtual-nfc/trace/recorder.h"

namespace virtualnfc {

/// Takes control lines for a server from other processes, one line per connection. The connection ends with
/// the reply; a connection that records stays open. A program that does not read never blocks the others.
/// Works from construction to destruction on its own thread; the server must outlive it.
class ControlServer {
 public:
  /// @throws std::runtime_error when it cannot listen
  explicit ControlServer(VirtualNfc& server);
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

 private:
  struct Connection {
    UniqueFd fd;
    std::string line;
    std::chrono::steady_clock::time_point giveUp;
    /// Null unless it records.
    std::unique_ptr<Recorder> recorder = nullptr;
    std::string unsent = {};
    bool isLast = false;
  };

  void Run();
  // Both return false when the connection is finished.
  bool Serve(Connection& connection);
  bool Record(Connection& connection, short happened);
  std::string BeginRecord(Connection& connection, std::uint32_t count);
  void Wake() const;

  VirtualNfc& mServer;
  UnixListener mListener;
  UniqueFd mWake;
  std::atomic<bool> mStop{false};
  /// Of the control thread.
  std::size_t mRecorders = 0;
  std::thread mThread;
};

/// Sends one line to the server at this address and waits for the reply.
/// @returns the reply; empty, with errno, when the server cannot be reached or does not reply in time
std::string AskServer(const std::string& address, const std::string& line,
                      std::chrono::seconds timeout = std::chrono::seconds(5));
/// The same for a long reply: `take` gets each part of it as it comes, and returns false to end.
/// @param timeout between two parts; 0: none @returns false with errno in the cases above
bool AskServer(const std::string& address, const std::string& line, std::chrono::seconds timeout,
               const std::function<bool(std::string_view)>& take);

}  // namespace virtualnfc
