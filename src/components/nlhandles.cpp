#include "src/components/nlhandles.h"

#include <deque>
#include <mutex>

namespace {

/// More sockets than are ever closed within the few milliseconds in which the kernel still ends their
/// polling.
constexpr size_t kMostClosedSockets = 32;

}  // namespace

void CloseAndKeepPort(nl_sock* socket) {
  using Closed = std::unique_ptr<nl_sock, NlRelease<nl_socket_free>>;
  static std::mutex mutex;
  static std::deque<Closed> sockets;  // port numbers are shared by the process, so these are, too
  nl_close(socket);
  const std::lock_guard lock(mutex);
  sockets.emplace_back(socket);
  if (sockets.size() > kMostClosedSockets) {
    sockets.pop_front();
  }
}
