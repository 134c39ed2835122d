#pragma once

#include <thread>

namespace bench {

/// A system log at /dev/log that reads and drops every line, so that writing a line costs as much as on a
/// station. Throws when there is already a system log.
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
