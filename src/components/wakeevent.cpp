#include "src/components/wakeevent.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

CWakeEvent::CWakeEvent() : mFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (mFd < 0) {
    throw std::system_error(errno, std::generic_category(), "eventfd");
  }
}

CWakeEvent::~CWakeEvent() {
  close(mFd);
}

// Failures do not matter: a full counter is signalled already, an empty one is reset already.
void CWakeEvent::Signal() {
  const uint64_t one = 1;
  [[maybe_unused]] const auto written = write(mFd, &one, sizeof(one));
}

void CWakeEvent::Reset() {
  uint64_t count = 0;
  [[maybe_unused]] const auto got = read(mFd, &count, sizeof(count));
}
