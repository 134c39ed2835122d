#include "tools/virtual-nfc/server/controlserver.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/time.h>

#include <cerrno>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tools/virtual-nfc/server/controlprotocol.h"

namespace virtualnfc {

namespace {

constexpr std::size_t kMaxLine = 4096;
constexpr std::size_t kMaxConnections = 32;
constexpr std::chrono::seconds kPatience{5};

}  // namespace

ControlServer::ControlServer(VirtualNfc& server)
    : mServer(server),
      mListener(ControlAddress(server.Address()), SOCK_STREAM),
      mEnd(::eventfd(0, EFD_CLOEXEC)) {
  if (!mEnd) {
    throw std::runtime_error("cannot make an event descriptor");
  }
  mThread = std::thread([this] {
    ::pthread_setname_np(::pthread_self(), "nfc-control");
    Run();
  });
}

ControlServer::~ControlServer() {
  ::eventfd_write(mEnd.Get(), 1);
  mThread.join();
}

bool ControlServer::Serve(Connection& connection) {
  char chunk[kMaxLine];
  const ssize_t length = ::recv(connection.fd.Get(), chunk, sizeof(chunk), MSG_DONTWAIT);
  if (length < 0) {
    return errno == EAGAIN;
  }
  connection.line.append(chunk, static_cast<std::size_t>(length));
  const std::size_t end = connection.line.find('\n');
  const bool isTooLong = end == std::string::npos && connection.line.size() > kMaxLine;
  if (length > 0 && end == std::string::npos && !isTooLong) {
    return true;
  }
  const std::string reply = isTooLong ? "error: the line is too long\n"
                                      : HandleControlLine(mServer, connection.line.substr(0, end));
  (void)::send(connection.fd.Get(), reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return false;
}

void ControlServer::Run() {
  std::vector<Connection> connections;
  for (;;) {
    std::vector<pollfd> fds{{mEnd.Get(), POLLIN, 0}};
    for (const Connection& connection : connections) {
      fds.push_back({connection.fd.Get(), POLLIN, 0});
    }
    if (connections.size() < kMaxConnections) {
      fds.push_back({mListener.Fd(), POLLIN, 0});
    }
    const auto patience = std::chrono::milliseconds(kPatience).count();
    ::poll(fds.data(), fds.size(), connections.empty() ? -1 : static_cast<int>(patience));
    if (fds[0].revents != 0) {
      return;
    }
    const auto now = std::chrono::steady_clock::now();
    std::size_t at = 0;
    std::erase_if(connections, [&](Connection& connection) {
      return fds[++at].revents != 0 ? !Serve(connection) : now >= connection.giveUp;
    });
    if (UniqueFd fd = connections.size() < kMaxConnections ? mListener.Accept() : UniqueFd()) {
      connections.push_back({std::move(fd), {}, now + kPatience});
    }
  }
}

std::string AskServer(const std::string& address, const std::string& line) {
  const UniqueFd fd = ConnectUnix(ControlAddress(address), SOCK_STREAM);
  const timeval limit{kPatience.count(), 0};
  const std::string whole = line + "\n";
  if (!fd || ::setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) != 0 ||
      ::send(fd.Get(), whole.data(), whole.size(), MSG_NOSIGNAL) < 0) {
    return "";
  }
  std::string reply;
  char chunk[kMaxLine];
  ssize_t length = 0;
  while ((length = ::recv(fd.Get(), chunk, sizeof(chunk), 0)) > 0) {
    reply.append(chunk, static_cast<std::size_t>(length));
  }
  return length < 0 ? "" : reply;
}

}  // namespace virtualnfc
