#pragma once

#include <thread>

namespace bench {

/// A system log that takes every line and drops it, as long as it lives: a line costs its writer what it
/// costs on a station. Serves at /dev/log, where nothing may serve yet.
class SystemLog {
 public:
  SystemLog();
  ~SystemLog();
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;

 private:
  const int mSocket;
  std::thread mThread;
};

}  // namespace bench
