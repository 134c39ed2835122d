#include "src/components/nfceventsocket.h"

#include <fmt/format.h>
#include <netlink/errno.h>
#include <netlink/genl/genl.h>
#include <poll.h>
#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "src/components/nfcrequests.h"

namespace {

/// Pause after a failed wait, so that the monitor does not spin.
constexpr std::chrono::milliseconds kRetryPause(50);

/// Events do not carry our sequence numbers.
int AcceptSequence(nl_msg*, void*) {
  return NL_OK;
}

/// Rounded up, so that the wait never ends before `until`.
timeval TimeUntil(CNfcEventSocket::Clock::time_point until) {
  using std::chrono::microseconds;
  const auto left =
      std::max(std::chrono::ceil<microseconds>(until - CNfcEventSocket::Clock::now()), microseconds::zero());
  timeval time{};
  time.tv_sec = static_cast<decltype(time.tv_sec)>(left.count() / 1'000'000);
  time.tv_usec = static_cast<decltype(time.tv_usec)>(left.count() % 1'000'000);
  return time;
}

}  // namespace

void CNfcEventSocket::Expect() {
  mWake.Reset();
  const std::lock_guard lock(mMutex);
  mState = EState::SettingUp;
}

void CNfcEventSocket::Abandon() {
  Close();
}

bool CNfcEventSocket::AwaitSetUp() {
  std::unique_lock lock(mMutex);
  mSetUpEnded.wait(lock, [this] { return mState != EState::SettingUp; });
  return mState == EState::Listening;
}

CNfcEventSocket::Failure CNfcEventSocket::Wake(int family) {
  const std::lock_guard lock(mMutex);
  if (mState != EState::Listening) {
    return {};  // a monitor that still sets up checks the stop flag before it first sleeps
  }
  const auto request = BuildRequest(NfcRequests::kUnspec, family);
  if (!request.message) {
    return {.text = request.failure, .code = request.code};
  }
  if (const int result = nl_send_auto(mSocket.get(), request.message.get()); result < 0) {
    return {.text = fmt::format("Error: Failed to stop event monitor {}.", nl_geterror(result)),
            .code = -result};
  }
  return {};
}

CNfcEventSocket::Failure CNfcEventSocket::SetUp(int group) {
  {
    const std::lock_guard lock(mMutex);
    mSocket.reset(nl_socket_alloc());
  }
  if (auto failure = Connect(group); failure.code != 0) {
    return failure;
  }
  {
    const std::lock_guard lock(mMutex);
    mState = EState::Listening;
  }
  mSetUpEnded.notify_one();
  return {};
}

CNfcEventSocket::Failure CNfcEventSocket::Connect(int group) {
  if (!mSocket) {
    return {.text = "Error: Could not allocate netlink event socket.", .code = NLE_NOMEM};
  }
  if (const int result = genl_connect(mSocket.get()); result != 0) {
    return {.text = fmt::format("Error: Could not connect event socket to generic netlink: {}.",
                                nl_geterror(result)),
            .code = std::abs(result)};
  }
  if (const int result = nl_socket_add_membership(mSocket.get(), group); result != 0) {
    return {
        .text = fmt::format("Error: Could not add membership to mcast nfc events: {}.", nl_geterror(result)),
        .code = std::abs(result)};
  }
  mCallbacks.reset(nl_cb_alloc(NL_CB_VERBOSE));
  if (!mCallbacks) {
    return {.text = "Error allocating struct nl_cb.", .code = NLE_NOMEM};
  }
  nl_cb_set(mCallbacks.get(), NL_CB_SEQ_CHECK, NL_CB_CUSTOM, AcceptSequence, nullptr);
  // A message that announces a next part must not block the monitor in a receive: that part may never come.
  if (const int result = nl_socket_set_nonblocking(mSocket.get()); result != 0) {
    return {
        .text = fmt::format("Error: Could not make the event socket non-blocking: {}.", nl_geterror(result)),
        .code = std::abs(result)};
  }
  const int highest = std::max(nl_socket_get_fd(mSocket.get()), mWake.GetFd());
  if (highest >= FD_SETSIZE) {
    return {.text = fmt::format("Error: Too many open descriptors to wait for events: {} of {}.", highest,
                                FD_SETSIZE),
            .code = NLE_NOMEM};
  }
  return {};
}

bool CNfcEventSocket::Wait(Clock::time_point until) {
  const int fd = nl_socket_get_fd(mSocket.get());
  const int wakeFd = mWake.GetFd();
  fd_set readable;
  int result = 0;
  do {
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    FD_SET(wakeFd, &readable);
    timeval time = TimeUntil(until);
    result = select(std::max(fd, wakeFd) + 1, &readable, nullptr, nullptr, &time);
  } while (result < 0 && errno == EINTR);
  if (result < 0) {
    // Memory is short, or the socket is gone. The next receive reports it.
    std::this_thread::sleep_for(kRetryPause);
  } else if (result > 0 && FD_ISSET(wakeFd, &readable)) {
    mWake.Reset();
  }
  return result != 0;
}

bool CNfcEventSocket::HasEvents(std::chrono::milliseconds patience) const {
  pollfd waiting{nl_socket_get_fd(mSocket.get()), POLLIN, 0};
  return poll(&waiting, 1, static_cast<int>(patience.count())) > 0;
}

int CNfcEventSocket::Receive(nl_recvmsg_msg_cb_t onEvent, void* argument) {
  nl_cb_set(mCallbacks.get(), NL_CB_VALID, NL_CB_CUSTOM, onEvent, argument);
  return nl_recvmsgs_report(mSocket.get(), mCallbacks.get());
}

void CNfcEventSocket::DropEmpty() {
  DropEmptyDatagram(mSocket.get());
}

void CNfcEventSocket::Close() {
  mCallbacks.reset();
  {
    const std::lock_guard lock(mMutex);
    mSocket.reset();
    mState = EState::Closed;
  }
  mSetUpEnded.notify_one();
}
