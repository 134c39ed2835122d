#pragma once

#include <netlink/handlers.h>

#include <chrono>

struct nl_sock;
struct nl_msg;

/// How an exchange ended.
struct ExchangeResult {
  enum class EEnd {
    Answered,     ///< the acknowledgement or the end of the dump came
    Refused,      ///< the kernel answered an error; `code` is its positive errno
    NoMemory,     ///< nothing was sent
    NotSent,      ///< `code` is libnl's positive code
    NotAnswered,  ///< `code` is libnl's positive code, NLE_AGAIN when the timeout is over
  };

  EEnd end = EEnd::Answered;
  int code = 0;
  unsigned skipped = 0;   ///< messages that did not answer the request
  bool isLimited = true;  ///< false: the system had no timer for `sendLimit`
};

/// Sends one request and receives its whole answer. Every valid message of the answer goes to `onValid`.
///
/// Blocks while the kernel carries out the request, and then until the answer comes or the socket's receive
/// timeout is over. A `sendLimit` other than zero interrupts the kernel's work, see CCommandTimeLimit.
/// Messages that do not answer the request are skipped. After the first such message, the exchange ends
/// within `patience`, so a stream of them cannot delay the end.
ExchangeResult RunExchange(nl_sock* socket, nl_msg* request, std::chrono::milliseconds patience,
                           nl_recvmsg_msg_cb_t onValid = nullptr, void* argument = nullptr,
                           std::chrono::milliseconds sendLimit = {});
