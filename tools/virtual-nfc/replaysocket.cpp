#include "replaysocket.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace virtualnfc {

namespace {

constexpr std::chrono::seconds kTimeToEnd{1};

/// Only so that a wait in the kernel ends.
void PrepareSignal() {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ::sigaction(SIGUSR1, &action, nullptr);
}

}  // namespace

struct ReplaySocket::Shared {
  std::mutex mutex;
  std::condition_variable changed;
  // Guarded by the mutex.
  Operation operation;
  int result = 0;
  bool isBusy = false;
  bool isClosed = false;
  std::thread thread;
};

ReplaySocket::ReplaySocket(std::shared_ptr<NetlinkChannel> channel)
    : mChannel(std::move(channel)), mShared(std::make_shared<Shared>()) {
  PrepareSignal();
  mShared->thread = std::thread([shared = mShared, used = mChannel] { Run(shared, used); });
}

ReplaySocket::~ReplaySocket() {
  {
    const std::lock_guard lock(mShared->mutex);
    mShared->isClosed = true;
    mShared->changed.notify_all();
  }
  const Clock::time_point deadline = Clock::now() + kTimeToEnd;
  if (!WaitForEnd(Clock::now())) {
    Signal();
  }
  if (WaitForEnd(deadline)) {
    mShared->thread.join();
  } else {
    mShared->thread.detach();
  }
}

void ReplaySocket::Run(const std::shared_ptr<Shared>& shared,
                       const std::shared_ptr<NetlinkChannel>& channel) {
  std::unique_lock lock(shared->mutex);
  for (;;) {
    shared->changed.wait(lock, [&] { return shared->isBusy || shared->isClosed; });
    if (!shared->isBusy) {
      return;
    }
    const Operation operation = std::move(shared->operation);
    lock.unlock();
    const int result = operation(*channel);
    lock.lock();
    shared->result = result;
    shared->isBusy = false;
    shared->changed.notify_all();
  }
}

void ReplaySocket::Start(Operation operation) {
  const std::lock_guard lock(mShared->mutex);
  mShared->operation = std::move(operation);
  mShared->isBusy = true;
  mShared->changed.notify_all();
}

std::optional<int> ReplaySocket::WaitForEnd(Clock::time_point deadline) {
  std::unique_lock lock(mShared->mutex);
  const bool isOver = mShared->changed.wait_until(lock, deadline, [&] { return !mShared->isBusy; });
  return isOver ? std::optional(mShared->result) : std::nullopt;
}

void ReplaySocket::Signal() {
  ::pthread_kill(mShared->thread.native_handle(), SIGUSR1);
}

const Datagram* ReplaySocket::Peek(std::size_t index, Clock::time_point deadline) {
  for (;;) {
    while (auto datagram = mChannel->Receive()) {
      mReceived.push_back(std::move(*datagram));
    }
    if (mReceived.size() > index) {
      return &mReceived[index];
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      return nullptr;
    }
    pollfd waiting{mChannel->Fd(), POLLIN, 0};
    ::poll(&waiting, 1, static_cast<int>(left.count()));
  }
}

void ReplaySocket::Drop() {
  mReceived.pop_front();
}

}  // namespace virtualnfc
