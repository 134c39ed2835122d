#include "src/interruptrelay.h"

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <system_error>

#include "framework/thread.h"

namespace {

/// Counts the signals that the thread has not seen yet. Never destroyed, because a handler may still run when
/// a relay is destroyed.
sem_t& Signals() {
  static sem_t* const made = [] {
    static sem_t semaphore;
    if (sem_init(&semaphore, 0, 0) != 0) {
      throw std::system_error(errno, std::generic_category(), "semaphore for signals");
    }
    return &semaphore;
  }();
  return *made;
}

sem_t* pendingSignals = nullptr;  // set before the handler is installed
std::atomic<bool> ending{false};

void HandleSignal(int) {
  const int error = errno;
  sem_post(pendingSignals);  // a handler may do little more
  errno = error;
}

void SetAction(void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
}

void Mask(int how) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(how, &signals, nullptr);
}

void Relay(const std::function<void(int)>& hook) {
  SetThreadName("rfid-signal");
  for (;;) {
    if (sem_wait(pendingSignals) != 0) {
      continue;  // interrupted
    }
    if (ending) {
      return;
    }
    if (hook) {
      hook(SIGINT);
    }
  }
}

}  // namespace

CInterruptBlock::CInterruptBlock() {
  Mask(SIG_BLOCK);
}

CInterruptBlock::~CInterruptBlock() {
  Mask(SIG_UNBLOCK);
}

CInterruptRelay::CInterruptRelay(const std::function<void(int)>& hook) {
  pendingSignals = &Signals();
  while (sem_trywait(pendingSignals) == 0) {
    // drop what an earlier relay left
  }
  ending = false;
  mThread = std::thread(Relay, std::cref(hook));
  SetAction(HandleSignal);
  Mask(SIG_BLOCK);
}

CInterruptRelay::~CInterruptRelay() {
  SetAction(SIG_DFL);
  Mask(SIG_UNBLOCK);
  ending = true;
  sem_post(pendingSignals);
  mThread.join();
}
