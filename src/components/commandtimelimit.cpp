#include "src/components/commandtimelimit.h"

#include <pthread.h>
#include <unistd.h>

// Older C libraries have no name for the field.
#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

namespace {

int TheSignal() {
  return SIGRTMIN + 2;
}

void InstallHandler() {
  static const bool installed = [] {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // the call alone ends the wait
    sigemptyset(&action.sa_mask);
    return sigaction(TheSignal(), &action, nullptr) == 0;
  }();
  static_cast<void>(installed);
}

timespec ToTimespec(std::chrono::milliseconds time) {
  timespec result{};
  result.tv_sec = static_cast<time_t>(time.count() / 1000);
  result.tv_nsec = static_cast<long>(time.count() % 1000) * 1'000'000;
  return result;
}

}  // namespace

CCommandTimeLimit::CCommandTimeLimit(std::chrono::milliseconds limit) {
  InstallHandler();
  sigemptyset(&mSignals);
  sigaddset(&mSignals, TheSignal());
  sigevent notification{};
  notification.sigev_notify = SIGEV_THREAD_ID;
  notification.sigev_signo = TheSignal();
  notification.sigev_notify_thread_id = gettid();
  if (timer_create(CLOCK_MONOTONIC, &notification, &mTimer) != 0) {
    return;
  }
  mIsArmed = true;
  // Periodic, because a signal that comes before the call blocks has no effect.
  const itimerspec times{.it_interval = ToTimespec(limit), .it_value = ToTimespec(limit)};
  timer_settime(mTimer, 0, &times, nullptr);
  pthread_sigmask(SIG_UNBLOCK, &mSignals, nullptr);
}

CCommandTimeLimit::~CCommandTimeLimit() {
  pthread_sigmask(SIG_BLOCK, &mSignals, nullptr);
  if (!mIsArmed) {
    return;
  }
  timer_delete(mTimer);
  // Take a signal that is still pending: it would end the wait of the next limited call.
  const timespec now{};
  while (sigtimedwait(&mSignals, nullptr, &now) > 0) {
  }
}
