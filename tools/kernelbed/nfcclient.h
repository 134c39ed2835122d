#pragma once

// A program that talks to the kernel's NFC family through libnl, and sees every message of the answers.

#include <linux/genetlink.h>
#include <linux/nfc.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/family.h>
#include <netlink/genl/genl.h>
#include <netlink/netlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tools/virtual-nfc/kernel/genlmessage.h"

namespace nfctest {

using virtualnfc::Bytes;

constexpr std::uint16_t kFamily = 20;
constexpr std::uint32_t kGroup = 3;

struct NlSocketDeleter {
  void operator()(nl_sock* socket) const { nl_socket_free(socket); }
};
struct NlMessageDeleter {
  void operator()(nl_msg* message) const { nlmsg_free(message); }
};

/// One message of an answer, or an event.
struct Message {
  nlmsghdr header{};
  Bytes payload;

  std::uint8_t Command() const { return payload.empty() ? std::uint8_t{0} : payload[0]; }
  bool IsError() const { return header.nlmsg_type == NLMSG_ERROR; }
  /// The errno of an error message or of the end of a dump, positive.
  int Error() const {
    int code = 0;
    std::memcpy(&code, payload.data(), sizeof(code));
    return -code;
  }
  /// Everything after the two headers.
  Bytes Attributes() const { return Bytes(payload.begin() + 4, payload.end()); }
};

class NfcClient {
 public:
  /// The default numbers are those of the simulated kernel.
  explicit NfcClient(int family = kFamily, std::uint32_t group = kGroup)
      : mFamily(family), mGroup(group), mSocket(nl_socket_alloc()) {
    const int result = genl_connect(mSocket.get());
    if (result != 0) {
      throw std::runtime_error(std::string("genl_connect: ") + nl_geterror(result));
    }
    nl_socket_disable_seq_check(mSocket.get());
  }

  nl_sock* Get() const { return mSocket.get(); }
  int Fd() const { return nl_socket_get_fd(mSocket.get()); }
  std::uint32_t Port() const { return nl_socket_get_local_port(mSocket.get()); }
  void Close() { mSocket.reset(); }
  void JoinEvents() const {
    if (nl_socket_add_membership(mSocket.get(), static_cast<int>(mGroup)) != 0) {
      throw std::runtime_error("cannot join the events");
    }
  }

  /// A request with u32 attributes. @returns its length, or a negative libnl code
  int Send(std::uint8_t command, const std::vector<std::pair<int, std::uint32_t>>& attributes = {},
           int flags = NLM_F_REQUEST | NLM_F_ACK, std::optional<int> family = std::nullopt) const {
    const std::unique_ptr<nl_msg, NlMessageDeleter> message(nlmsg_alloc());
    genlmsg_put(message.get(), NL_AUTO_PORT, 77, family.value_or(mFamily), 0, flags, command, 1);
    for (const auto& [type, value] : attributes) {
      nla_put_u32(message.get(), type, value);
    }
    nlmsg_hdr(message.get())->nlmsg_pid = Port();
    return nl_send(mSocket.get(), message.get());
  }

  /// The messages in the receive queue, without waiting: an answer is there when Send returns.
  std::vector<Message> Received() const {
    std::vector<Message> messages;
    for (Bytes datagram = ReceiveDatagram(); !datagram.empty(); datagram = ReceiveDatagram()) {
      for (const Bytes& one : virtualnfc::SplitMessages(datagram)) {
        Message message;
        std::memcpy(&message.header, one.data(), sizeof(message.header));
        message.payload.assign(one.begin() + NLMSG_HDRLEN, one.end());
        messages.push_back(std::move(message));
      }
    }
    return messages;
  }

  /// One datagram; empty when the queue is empty.
  Bytes ReceiveDatagram() const {
    Bytes datagram(65536);
    const ssize_t length = ::recv(Fd(), datagram.data(), datagram.size(), MSG_DONTWAIT);
    datagram.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return datagram;
  }

  /// Waits until a message can be received; false after a minute.
  bool WaitReadable() const {
    pollfd waiting{Fd(), POLLIN, 0};
    return ::poll(&waiting, 1, 60000) == 1;
  }

  /// The errno of the answer to a command; nothing without an answer.
  std::optional<int> Command(std::uint8_t command, std::uint32_t device = 0) const {
    std::vector<std::pair<int, std::uint32_t>> attributes{{NFC_ATTR_DEVICE_INDEX, device}};
    if (command == NFC_CMD_START_POLL) {
      attributes.emplace_back(NFC_ATTR_PROTOCOLS, 0xFC);
    }
    Send(command, attributes);
    return LastError();
  }

  std::optional<int> LastError() const {
    std::optional<int> error;
    for (const Message& message : Received()) {
      if (message.IsError()) {
        error = message.Error();
      }
    }
    return error;
  }

  /// The messages of a dump, including its end.
  std::vector<Message> Dump(std::uint8_t command, std::optional<std::uint32_t> device = std::nullopt) const {
    std::vector<std::pair<int, std::uint32_t>> attributes;
    if (device) {
      attributes.emplace_back(NFC_ATTR_DEVICE_INDEX, *device);
    }
    Send(command, attributes, NLM_F_REQUEST | NLM_F_ACK | NLM_F_DUMP);
    return Received();
  }

  /// Powers the device up and polls for everything.
  bool Poll() const {
    const auto up = Command(NFC_CMD_DEV_UP);
    return (up == 0 || up == EALREADY) && Command(NFC_CMD_START_POLL) == 0;
  }

 private:
  int mFamily;
  std::uint32_t mGroup;
  std::unique_ptr<nl_sock, NlSocketDeleter> mSocket;
};

}  // namespace nfctest
