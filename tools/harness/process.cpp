#include "tools/harness/process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace {

size_t CountEntries(const std::string& folder) {
  std::error_code ignored;
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder, ignored),
                                           std::filesystem::directory_iterator()));
}

}  // namespace

Process::Process(const std::vector<std::string>& command,
                 const std::map<std::string, std::string>& environment, const std::string& outputFile,
                 const std::string& errorFile) {
  if (access(command.front().c_str(), X_OK) != 0) {
    throw std::system_error(errno, std::generic_category(), command.front());
  }
  std::vector<std::string> words{"/usr/bin/env"};  // becomes the command, which keeps the process id
  for (const auto& [name, value] : environment) {
    words.push_back(fmt::format("{}={}", name, value));
  }
  words.insert(words.end(), command.begin(), command.end());
  std::vector<char*> arguments;
  for (auto& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  // This process may block or ignore signals; the child starts as from a terminal.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  sigset_t all;
  sigfillset(&all);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  const int error = posix_spawn(&mPid, arguments.front(), &actions, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), command.front());
  }
}

Process::~Process() {
  if (!mEnd) {
    Signal(SIGKILL);
    Wait();
  }
}

void Process::Signal(int signal) const {
  kill(mPid, signal);
}

std::optional<std::string> Process::Wait(std::chrono::seconds limit) {
  Eventually(
      [this] {
        int status = 0;
        if (!mEnd && waitpid(mPid, &status, WNOHANG) == mPid) {
          mEnd = WIFEXITED(status) ? fmt::format("exit {}", WEXITSTATUS(status))
                                   : fmt::format("signal {}", WTERMSIG(status));
        }
        return mEnd.has_value();
      },
      limit);
  return mEnd;
}

size_t Process::OpenDescriptors() const {
  return CountEntries(fmt::format("/proc/{}/fd", mPid));
}
size_t Process::Threads() const {
  return CountEntries(fmt::format("/proc/{}/task", mPid));
}
size_t Process::Memory(const std::string& name) const {
  std::ifstream status(fmt::format("/proc/{}/status", mPid));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ":")) {
      return std::stoul(line.substr(name.size() + 1));
    }
  }
  return 0;
}

std::string ReadFile(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}
