#pragma once

#include <netlink/handlers.h>

#include <chrono>

struct nl_sock;
struct nl_msg;

/// How an exchange ended.
struct ExchangeResult {
  enum class EEnd {
    Answered,     ///< the acknowledgement came, or the end of the dump
    Refused,      ///< the kernel answered an error; `code` is its positive errno
    NoMemory,     ///< nothing was sent
    NotSent,      ///< `code` is libnl's positive code
    NotAnswered,  ///< `code` is libnl's positive code, NLE_AGAIN when the timeout is over
  };

  EEnd end = EEnd::Answered;
  int code = 0;
  unsigned skipped = 0;   ///< messages that arrived meanwhile and did not answer the request
  bool isLimited = true;  ///< false: the system had no timer for the limit of the sending
};

/// Sends one request and receives its whole answer. Every valid message of the answer goes to `onValid`.
///
/// Blocks the calling thread while the kernel carries the request out, and then for the socket's receive
/// timeout. A `sendLimit` other than zero interrupts the first of the two, see CCommandTimeLimit. Messages
/// that do not answer the request are skipped; they cannot hold the exchange up for longer than `patience`,
/// which begins with the first of them: a process that was not scheduled for a while still takes the answer
/// that is there.
ExchangeResult RunExchange(nl_sock* socket, nl_msg* request, std::chrono::milliseconds patience,
                           nl_recvmsg_msg_cb_t onValid = nullptr, void* argument = nullptr,
                           std::chrono::milliseconds sendLimit = {});
