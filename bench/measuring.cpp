#include "measuring.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace bench {

namespace {

/// The numbers behind `name` in a "status" file of the process, or of one of its threads.
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

/// A child whose standard error comes through a pipe.
class Child {
 public:
  explicit Child(std::vector<std::string> command) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe");
    }
    mErrors = ends[0];
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (auto& argument : command) {
      arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    const int error = posix_spawn(&mPid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (error != 0) {
      close(mErrors);
      throw std::system_error(error, std::generic_category(), command.front());
    }
  }
  ~Child() {
    close(mErrors);
    kill(mPid, SIGKILL);
    waitpid(mPid, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool ReadUntil(const std::string& text) const {
    std::string read;
    char buffer[4096];
    for (;;) {
      const ssize_t count = ::read(mErrors, buffer, sizeof buffer);
      if (count <= 0) {
        return false;
      }
      read.append(buffer, static_cast<std::size_t>(count));
      if (read.find(text) != std::string::npos) {
        return true;
      }
    }
  }

 private:
  pid_t mPid = -1;
  int mErrors = -1;
};

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
  const auto start = Clock::now();
  const Child child(command);
  if (!child.ReadUntil(text)) {
    throw std::runtime_error(fmt::format("{} ended without writing \"{}\"", command.front(), text));
  }
  return Microseconds(Clock::now() - start);
}

}  // namespace bench
