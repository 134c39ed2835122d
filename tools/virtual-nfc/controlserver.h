#pragma once

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "unixsocket.h"
#include "virtualnfc.h"

namespace virtualnfc {

/// Takes control lines for a server from other processes: one line for each connection. Works from
/// construction to destruction on a thread of its own; the server must outlive it.
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
  /// @returns false when the connection is done with
  bool Serve(Connection& connection);

  VirtualNfc& mServer;
  UnixListener mListener;
  UniqueFd mWake;
  std::thread mThread;
};

/// Asks the server at this address, and waits that long at most.
/// @returns its reply; empty, with errno, when it cannot be reached or does not reply
std::string AskServer(const std::string& address, const std::string& line,
                      std::chrono::seconds patience = std::chrono::seconds(5));

}  // namespace virtualnfc
