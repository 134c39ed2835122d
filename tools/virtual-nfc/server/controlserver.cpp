#include "tools/virtual-nfc/server/controlserver.h"

#include <fmt/format.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "tools/virtual-nfc/server/controlprotocol.h"

namespace virtualnfc {

namespace {

constexpr std::size_t kMaxLine = 4096;
constexpr std::size_t kMaxConnections = 32;
/// Leaves connections for other commands.
constexpr std::size_t kMaxRecorders = 8;
constexpr std::chrono::seconds kPatience{5};

}  // namespace

ControlServer::ControlServer(VirtualNfc& server)
    : mServer(server),
      mListener(ControlAddress(server.Address()), SOCK_STREAM),
      mWake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!mWake) {
    throw std::runtime_error("cannot make an event descriptor");
  }
  mThread = std::thread([this] {
    ::pthread_setname_np(::pthread_self(), "nfc-control");
    Run();
  });
}

ControlServer::~ControlServer() {
  mStop = true;
  Wake();
  mThread.join();
}

void ControlServer::Wake() const {
  const std::uint64_t one = 1;
  (void)!::write(mWake.Get(), &one, sizeof(one));
}

std::string ControlServer::BeginRecord(Connection& connection, std::uint32_t count) {
  if (mRecorders == kMaxRecorders) {
    return fmt::format("{}{} programs record already\n", kRecordError, kMaxRecorders);
  }
  ++mRecorders;
  connection.recorder = std::make_unique<Recorder>(mServer, count, [this] { Wake(); });
  Wake();
  return {};
}

bool ControlServer::Record(Connection& connection, short happened) {
  char ignored = 0;
  bool isOver = (happened & (POLLIN | POLLHUP | POLLERR)) != 0 &&
                ::recv(connection.fd.Get(), &ignored, sizeof(ignored), MSG_DONTWAIT) == 0;
  while (!isOver) {
    if (connection.unsent.empty()) {
      isOver = connection.isLast;
      connection.unsent = connection.recorder->Take(connection.isLast);
      if (connection.unsent.empty()) {
        break;
      }
    }
    const ssize_t sent = ::send(connection.fd.Get(), connection.unsent.data(), connection.unsent.size(),
                                MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) {
      isOver = errno != EAGAIN;
      break;
    }
    connection.unsent.erase(0, static_cast<std::size_t>(sent));
  }
  mRecorders -= isOver ? 1 : 0;
  return !isOver;
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
  const std::string_view line = std::string_view(connection.line).substr(0, end);
  std::string reply;
  try {
    if (isTooLong) {
      reply = "error: the line is too long\n";
    } else if (const auto count = ParseRecordLine(line)) {
      reply = BeginRecord(connection, *count);
    } else {
      reply = HandleControlLine(mServer, line);
    }
  } catch (const std::invalid_argument& error) {
    reply = fmt::format("error: {}\n", error.what());
  }
  (void)::send(connection.fd.Get(), reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return connection.recorder != nullptr;
}

void ControlServer::Run() {
  std::vector<Connection> connections;
  for (;;) {
    std::vector<pollfd> fds{{mWake.Get(), POLLIN, 0}};
    for (const Connection& connection : connections) {
      const bool waits = !connection.unsent.empty();
      fds.push_back({connection.fd.Get(), static_cast<short>(waits ? POLLIN | POLLOUT : POLLIN), 0});
    }
    if (connections.size() < kMaxConnections) {
      fds.push_back({mListener.Fd(), POLLIN, 0});
    }
    const auto patience = std::chrono::duration_cast<std::chrono::milliseconds>(kPatience).count();
    ::poll(fds.data(), fds.size(), connections.empty() ? -1 : static_cast<int>(patience));
    if (mStop) {
      return;
    }
    // Reset the event before asking the recorders, so that later text wakes this thread again.
    std::uint64_t ignored = 0;
    (void)!::read(mWake.Get(), &ignored, sizeof(ignored));
    const auto now = std::chrono::steady_clock::now();
    std::size_t at = 0;
    std::erase_if(connections, [&](Connection& connection) {
      const short happened = fds[++at].revents;
      return connection.recorder ? !Record(connection, happened)
             : happened != 0     ? !Serve(connection)
                                 : now >= connection.giveUp;
    });
    if (UniqueFd fd = connections.size() < kMaxConnections ? mListener.Accept() : UniqueFd()) {
      connections.push_back({std::move(fd), {}, now + kPatience});
    }
  }
}

bool AskServer(const std::string& address, const std::string& line, std::chrono::seconds timeout,
               const std::function<bool(std::string_view)>& take) {
  const UniqueFd fd = ConnectUnix(ControlAddress(address), SOCK_STREAM);
  const timeval limit{static_cast<time_t>(timeout.count()), 0};
  const std::string whole = line + "\n";
  if (!fd || ::setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) != 0 ||
      ::send(fd.Get(), whole.data(), whole.size(), MSG_NOSIGNAL) < 0) {
    return false;
  }
  char chunk[kMaxLine];
  ssize_t length = 0;
  do {
    length = ::recv(fd.Get(), chunk, sizeof(chunk), 0);
  } while (length > 0 && take(std::string_view(chunk, static_cast<std::size_t>(length))));
  return length >= 0;
}

std::string AskServer(const std::string& address, const std::string& line, std::chrono::seconds timeout) {
  std::string reply;
  const bool isComplete = AskServer(address, line, timeout, [&reply](std::string_view part) {
    reply += part;
    return true;
  });
  return isComplete ? reply : std::string();
}

}  // namespace virtualnfc
