// A program of its own that talks to the kernel's NFC family and knows nothing of a simulated one. It powers
// device 0 up, polls, and prints the number of each event until its input ends.

#include <linux/nfc.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

namespace {

int Exchange(nl_sock* socket, int family, std::uint8_t command) {
  nl_msg* message = nlmsg_alloc();
  genlmsg_put(message, NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, 0, command, 1);
  nla_put_u32(message, NFC_ATTR_DEVICE_INDEX, 0);
  nla_put_u32(message, NFC_ATTR_PROTOCOLS, 0xFC);
  const int sent = nl_send_auto(socket, message);
  nlmsg_free(message);
  return sent < 0 ? sent : nl_wait_for_ack(socket);
}

int Say(const char* what, int number) {
  std::printf("%s %d\n", what, number);
  return std::fflush(stdout);
}

}  // namespace

int main() {
  nl_sock* socket = nl_socket_alloc();
  nl_sock* events = nl_socket_alloc();
  if (genl_connect(socket) != 0 || genl_connect(events) != 0) {
    Say("no connection", 0);
    return 1;
  }
  const int family = genl_ctrl_resolve(socket, "nfc");
  Say("family", family);
  nl_socket_add_membership(events, genl_ctrl_resolve_grp(socket, "nfc", "events"));
  Say("up", Exchange(socket, family, NFC_CMD_DEV_UP));
  Say("start", Exchange(socket, family, NFC_CMD_START_POLL));
  for (;;) {
    pollfd waiting[] = {{STDIN_FILENO, POLLIN, 0}, {nl_socket_get_fd(events), POLLIN, 0}};
    if (::poll(waiting, 2, -1) < 0 || waiting[0].revents != 0) break;
    unsigned char bytes[4096];
    const ssize_t length = ::recv(nl_socket_get_fd(events), bytes, sizeof(bytes), 0);
    if (length < NLMSG_HDRLEN + 4) break;
    Say("event", bytes[NLMSG_HDRLEN]);
  }
  nl_socket_free(events);
  nl_socket_free(socket);
  return 0;
}
