#include "src/components/nlhandles.h"

#include <deque>
#include <mutex>

namespace {

/// The kernel takes a few milliseconds to end the polling of a closed socket. Fewer sockets close in that
/// time.
constexpr size_t kMostClosedSockets = 32;

}  // namespace

void CloseAndKeepPort(nl_sock* socket) {
  using Closed = std::unique_ptr<nl_sock, NlRelease<nl_socket_free>>;
  static std::mutex mutex;
  static std::deque<Closed> sockets;  // for all controllers, because the process shares its port numbers
  nl_close(socket);
  const std::lock_guard lock(mutex);
  sockets.emplace_back(socket);
  if (sockets.size() > kMostClosedSockets) {
    sockets.pop_front();
  }
}
