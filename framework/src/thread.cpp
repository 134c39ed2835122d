#include "framework/thread.h"

#include <pthread.h>

#include <string>

void SetThreadName(const char* name) {
  constexpr std::size_t kLongest = 15;  // the system refuses a longer name
  const std::string text(name);
  pthread_setname_np(pthread_self(), text.substr(0, kLongest).c_str());
}
