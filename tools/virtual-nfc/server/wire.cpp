#include "tools/virtual-nfc/server/wire.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace virtualnfc::wire {

namespace {

/// A Reply with room for two descriptors.
struct OpenedMessage {
  OpenedMessage() {
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = room;
    message.msg_controllen = sizeof(room);
  }
  OpenedMessage(const OpenedMessage&) = delete;
  OpenedMessage& operator=(const OpenedMessage&) = delete;

  Reply reply{};
  int descriptors[2] = {-1, -1};
  iovec part{&reply, sizeof(reply)};
  alignas(cmsghdr) char room[CMSG_SPACE(sizeof(descriptors))] = {};
  msghdr message{};
};

}  // namespace

bool SendOpened(int control, const UniqueFd& data, const UniqueFd& losses) {
  OpenedMessage opened;
  opened.descriptors[0] = data.Get();
  opened.descriptors[1] = losses.Get();
  cmsghdr* header = CMSG_FIRSTHDR(&opened.message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(opened.descriptors));
  std::memcpy(CMSG_DATA(header), opened.descriptors, sizeof(opened.descriptors));
  return ::sendmsg(control, &opened.message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

bool ReceiveOpened(int control, UniqueFd& data, UniqueFd& losses) {
  OpenedMessage opened;
  ssize_t length = 0;
  do {
    length = ::recvmsg(control, &opened.message, MSG_CMSG_CLOEXEC);
  } while (length < 0 && errno == EINTR);
  const cmsghdr* header = CMSG_FIRSTHDR(&opened.message);
  if (length != sizeof(Reply) || opened.reply.error != 0 || header == nullptr ||
      header->cmsg_type != SCM_RIGHTS || header->cmsg_len != CMSG_LEN(sizeof(opened.descriptors))) {
    errno = opened.reply.error != 0 ? opened.reply.error : ECONNRESET;
    return false;
  }
  std::memcpy(opened.descriptors, CMSG_DATA(header), sizeof(opened.descriptors));
  data.Reset(opened.descriptors[0]);
  losses.Reset(opened.descriptors[1]);
  return true;
}

}  // namespace virtualnfc::wire
