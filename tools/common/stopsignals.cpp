#include "tools/common/stopsignals.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

StopSignals::StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  mDescriptor = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (mDescriptor < 0) {
    throw std::system_error(errno, std::generic_category(), "cannot wait for signals");
  }
}

bool StopSignals::HaveCome(std::chrono::milliseconds timeout) const {
  pollfd waiting{mDescriptor, POLLIN, 0};
  return poll(&waiting, 1, static_cast<int>(timeout.count())) > 0;
}

void StopSignals::Wait() const {
  pollfd waiting[] = {{mDescriptor, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
  while (poll(waiting, 2, -1) < 0 && errno == EINTR) {
  }
}

StopSignals::~StopSignals() {
  close(mDescriptor);
}
