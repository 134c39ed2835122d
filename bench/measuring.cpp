#include "measuring.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "tools/harness/process.h"

namespace bench {

namespace {

/// The number of the field `name` in the "status" file of a process or thread.
std::uint64_t StatusValue(const std::filesystem::path& folder, const std::string& name) {
  std::ifstream status(folder / "status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ":")) {
      return std::stoull(line.substr(name.size() + 1));
    }
  }
  return 0;
}

std::filesystem::path FolderOf(pid_t process) {
  return fmt::format("/proc/{}", process);
}

template <typename Visit>
void ForEachThread(pid_t process, Visit visit) {
  std::error_code ended;
  for (const auto& thread : std::filesystem::directory_iterator(FolderOf(process) / "task", ended)) {
    visit(thread.path());
  }
}

}  // namespace

double Microseconds(Clock::duration time) {
  return std::chrono::duration<double, std::micro>(time).count();
}

double Now() {
  return Microseconds(Clock::now().time_since_epoch());
}

double Quantile(std::vector<double> values, double quantile) {
  if (values.empty()) {
    return 0;
  }
  std::sort(values.begin(), values.end());
  const auto at = static_cast<std::size_t>(quantile * static_cast<double>(values.size()));
  return values[std::min(at, values.size() - 1)];
}

double Median(const std::vector<double>& values) {
  return Quantile(values, 0.5);
}

std::size_t MemoryOf(pid_t process, const std::string& name) {
  return StatusValue(FolderOf(process), name);
}

void ForgetPeakMemory() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

std::uint64_t ContextSwitches(pid_t process) {
  std::uint64_t switches = 0;
  ForEachThread(process, [&](const auto& thread) {
    switches += StatusValue(thread, "voluntary_ctxt_switches");
    switches += StatusValue(thread, "nonvoluntary_ctxt_switches");
  });
  return switches;
}

double CpuMicroseconds(pid_t process) {
  double sum = 0;
  ForEachThread(process, [&](const auto& thread) {
    double nanoseconds = 0;
    std::ifstream(thread / "schedstat") >> nanoseconds;
    sum += nanoseconds / 1000;
  });
  return sum;
}

TemporaryFolder::TemporaryFolder() {
  std::string name = std::filesystem::temp_directory_path() / "rfid-bench-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), name);
  }
  mFolder = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(mFolder, ignored);
}

void TemporaryFolder::Write(const std::string& name, const std::string& content) const {
  std::ofstream(mFolder / "new") << content;
  std::filesystem::rename(mFolder / "new", mFolder / name);
}

std::string Program(const std::string& name) {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

double TimeToLine(const std::vector<std::string>& command, const std::string& text) {
  const TemporaryFolder folder;
  const std::string pipe = folder.Path("errors");
  const int errors =
      mkfifo(pipe.c_str(), 0600) == 0 ? open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1;
  const std::unique_ptr<FILE, int (*)(FILE*)> stream(fdopen(errors, "r"), fclose);
  if (!stream) {
    throw std::system_error(errno, std::generic_category(), pipe);
  }
  const auto start = Clock::now();
  const Process process(command, {}, folder.Path("output"), pipe);
  fcntl(errors, F_SETFL, 0);  // the program has opened the other end, so reading may block now
  char line[4096];
  while (fgets(line, sizeof line, stream.get()) != nullptr) {
    if (std::strstr(line, text.c_str()) != nullptr) {
      return Microseconds(Clock::now() - start);
    }
  }
  throw std::runtime_error(fmt::format("{} ended without writing \"{}\"", command.front(), text));
}

}  // namespace bench
