#pragma once

#include <netlink/handlers.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>

#include <memory>

/// Owning handles on libnl's objects.
template <auto Release>
struct NlRelease {
  template <typename T>
  void operator()(T* object) const {
    Release(object);
  }
};

using NlMessage = std::unique_ptr<nl_msg, NlRelease<nlmsg_free>>;
using NlCallbacks = std::unique_ptr<nl_cb, NlRelease<nl_cb_put>>;
using NlSocket = std::unique_ptr<nl_sock, NlRelease<nl_socket_free>>;
