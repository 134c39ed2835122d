#pragma once

#include <chrono>
#include <string>
#include <thread>

#include "tools/virtual-nfc/server/unixsocket.h"
#include "tools/virtual-nfc/server/virtualnfc.h"

namespace virtualnfc {

/// Takes control lines for a server from other processes, one line per connection. A program that sends or
/// reads nothing never blocks the others. Works from construction to destruction on its own thread; the
/// server must outlive it.
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
  };

  void Run();
  /// @returns false when the connection is finished
  bool Serve(Connection& connection);

  VirtualNfc& mServer;
  UnixListener mListener;
  /// Readable when the server ends.
  UniqueFd mEnd;
  std::thread mThread;
};

/// Sends one line to the server at this address and waits for the reply, five seconds for each part of it.
/// @returns the reply; empty, with errno, when the server cannot be reached or does not reply in time
std::string AskServer(const std::string& address, const std::string& line);

}  // namespace virtualnfc
