#pragma once

#include <thread>

namespace bench {

/// A system log at /dev/log that reads and drops every line, so that a line costs its writer what it costs on
/// a station. Throws when there is a system log already.
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
