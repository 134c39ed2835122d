#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

/// Measures times, and processes.
namespace bench {

using Clock = std::chrono::steady_clock;

double Microseconds(Clock::duration time);
double Now();  ///< in microseconds

/// 0 without values.
double Quantile(std::vector<double> values, double quantile);
double Median(const std::vector<double>& values);

/// How long a call takes, in microseconds.
template <typename Call>
double Time(Call call) {
  const auto start = Clock::now();
  call();
  return Microseconds(Clock::now() - start);
}

/// "VmRSS", "VmHWM" and such in KiB; 0 when the process has ended.
std::size_t MemoryOf(pid_t process, const std::string& name);

/// Resets VmHWM of this process.
void ForgetPeakMemory();

/// Of all threads since their start.
std::uint64_t ContextSwitches(pid_t process);
double CpuMicroseconds(pid_t process);

/// A temporary folder.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string Path(const std::string& name) const { return mFolder / name; }
  void Write(const std::string& name, const std::string& content) const;  ///< in one step

 private:
  std::filesystem::path mFolder;
};

/// The path of a program in this program's folder.
std::string Program(const std::string& name);
inline std::string Daemon() {
  return Program("rfidd");
}

/// Starts the command and waits until it writes a line with this text to standard error, then kills it.
/// Returns the time in microseconds. Throws when the command ends without the line.
double TimeToLine(const std::vector<std::string>& command, const std::string& text);

}  // namespace bench
