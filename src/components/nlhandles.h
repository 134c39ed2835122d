#pragma once

#include <netlink/handlers.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <sys/socket.h>

#include <memory>

/// Owning handles on libnl's objects.
template <auto Release>
struct NlRelease {
  template <typename T>
  void operator()(T* object) const {
    Release(object);
  }
};

/// Closes a socket and keeps its port number taken for a while, so that libnl does not reuse it: the kernel
/// ends the polling of a closed socket's port some milliseconds later, and would end that of a new socket
/// with the same port. Any thread.
void CloseAndKeepPort(nl_sock* socket);

using NlMessage = std::unique_ptr<nl_msg, NlRelease<nlmsg_free>>;
using NlCallbacks = std::unique_ptr<nl_cb, NlRelease<nl_cb_put>>;
using NlSocket = std::unique_ptr<nl_sock, NlRelease<CloseAndKeepPort>>;

inline bool IsFromKernel(nl_msg* msg) {
  return nlmsg_get_src(msg)->nl_pid == 0;
}

/// libnl leaves an empty datagram in the socket, so the next receive would find it again.
inline void DropEmptyDatagram(nl_sock* socket) {
  char byte = 0;
  if (recv(nl_socket_get_fd(socket), &byte, sizeof(byte), MSG_PEEK | MSG_DONTWAIT) == 0) {
    recv(nl_socket_get_fd(socket), &byte, sizeof(byte), MSG_DONTWAIT);
  }
}
