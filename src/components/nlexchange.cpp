#include "src/components/nlexchange.h"

#include <netlink/errno.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <optional>

#include "src/components/commandtimelimit.h"
#include "src/components/nlhandles.h"

namespace {

struct Exchange {
  const std::chrono::milliseconds patience;
  int error = 0;
  bool done = false;
  uint32_t sequence = 0;
  unsigned skipped = 0;
  bool expired = false;
  std::optional<std::chrono::steady_clock::time_point> end{};

  void Skip() {
    const auto now = std::chrono::steady_clock::now();
    end = end.value_or(now + patience);
    expired = now > *end;
  }
  bool IsOver() const { return error != 0 || done; }
};

int OnError(sockaddr_nl*, nlmsgerr* message, void* argument) {
  // INT_MIN has no positive form.
  static_cast<Exchange*>(argument)->error = std::max(message->error, -INT_MAX);
  return NL_SKIP;
}

int OnFinish(nl_msg*, void* argument) {
  static_cast<Exchange*>(argument)->done = true;
  return NL_SKIP;
}

int OnAck(nl_msg*, void* argument) {
  static_cast<Exchange*>(argument)->done = true;
  return NL_STOP;
}

/// Lets only the answer to this request through. Other messages may be left from an abandoned exchange or
/// come from another process.
int CheckAnswer(nl_msg* message, void* argument) {
  auto& exchange = *static_cast<Exchange*>(argument);
  if (IsFromKernel(message) && nlmsg_hdr(message)->nlmsg_seq == exchange.sequence) {
    return NL_OK;
  }
  ++exchange.skipped;
  exchange.Skip();
  return exchange.expired ? NL_STOP : NL_SKIP;
}

/// Returns libnl's result. Only sending can be limited: libnl restarts an interrupted receive with the whole
/// timeout.
int Send(nl_sock* socket, nl_msg* request, std::chrono::milliseconds limit, bool& isLimited) {
  std::optional<CCommandTimeLimit> timeLimit;
  if (limit.count() > 0) {
    timeLimit.emplace(limit);
    isLimited = timeLimit->IsArmed();
  }
  return nl_send_auto(socket, request);
}

}  // namespace

ExchangeResult RunExchange(nl_sock* socket, nl_msg* request, std::chrono::milliseconds patience,
                           nl_recvmsg_msg_cb_t onValid, void* argument, std::chrono::milliseconds sendLimit) {
  using EEnd = ExchangeResult::EEnd;
  Exchange exchange{.patience = patience};
  bool isLimited = true;
  const NlCallbacks callbacks(nl_cb_alloc(NL_CB_DEFAULT));
  if (!callbacks) {
    return {.end = EEnd::NoMemory, .code = NLE_NOMEM};
  }
  if (const int result = Send(socket, request, sendLimit, isLimited); result < 0) {
    return {.end = EEnd::NotSent, .code = -result, .isLimited = isLimited};
  }
  exchange.sequence = nlmsg_hdr(request)->nlmsg_seq;
  nl_cb_err(callbacks.get(), NL_CB_CUSTOM, OnError, &exchange);
  nl_cb_set(callbacks.get(), NL_CB_FINISH, NL_CB_CUSTOM, OnFinish, &exchange);
  nl_cb_set(callbacks.get(), NL_CB_ACK, NL_CB_CUSTOM, OnAck, &exchange);
  nl_cb_set(callbacks.get(), NL_CB_SEQ_CHECK, NL_CB_CUSTOM, CheckAnswer, &exchange);
  if (onValid != nullptr) {
    nl_cb_set(callbacks.get(), NL_CB_VALID, NL_CB_CUSTOM, onValid, argument);
  }
  while (!exchange.IsOver()) {
    int result = nl_recvmsgs_report(socket, callbacks.get());
    if (result == 0) {
      DropEmptyDatagram(socket);
      exchange.Skip();
    }
    if (result >= 0 && exchange.expired && !exchange.IsOver()) {
      result = -NLE_AGAIN;
    }
    if (result < 0) {
      return {.end = EEnd::NotAnswered, .code = -result, .skipped = exchange.skipped, .isLimited = isLimited};
    }
  }
  if (exchange.error != 0) {
    return {.end = EEnd::Refused,
            .code = std::abs(exchange.error),
            .skipped = exchange.skipped,
            .isLimited = isLimited};
  }
  return {.end = EEnd::Answered, .code = 0, .skipped = exchange.skipped, .isLimited = isLimited};
}
