#include "src/interruptrelay.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "framework/thread.h"

namespace {

constexpr int NoSignal = 0;  // ends the thread

/// Read end, write end. Made once and never closed: a handler may still be running when a relay goes.
std::array<int, 2> OpenPipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe for signals");
  }
  fcntl(ends[1], F_SETFL, O_NONBLOCK);  // a full pipe holds signals enough
  return ends;
}

std::array<int, 2>& Pipe() {
  static std::array<int, 2> ends = OpenPipe();
  return ends;
}

int writeEnd = -1;  // set before the handler is installed

void Write(int signal) {
  [[maybe_unused]] const auto written = write(writeEnd, &signal, sizeof(signal));
}

void HandleSignal(int signal) {
  const int error = errno;
  Write(signal);
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

void Relay(int readEnd, const std::function<void(int)>& hook) {
  SetThreadName("rfid-signal");
  for (;;) {
    int signal = NoSignal;
    const auto got = read(readEnd, &signal, sizeof(signal));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got != sizeof(signal) || signal == NoSignal) {
      return;
    }
    if (hook) {
      hook(signal);
    }
  }
}

}  // namespace

CInterruptRelay::CInterruptRelay(const std::function<void(int)>& hook) {
  writeEnd = Pipe()[1];
  mThread = std::thread(Relay, Pipe()[0], std::cref(hook));
  SetAction(HandleSignal);
  Mask(SIG_BLOCK);
}

CInterruptRelay::~CInterruptRelay() {
  SetAction(SIG_DFL);
  Mask(SIG_UNBLOCK);
  Write(NoSignal);
  mThread.join();
}
