// Process 1 of the guest. The runner makes a job folder on the host and names it on the kernel's command line
// as "job=FOLDER", which the kernel passes on in the environment. Its files argv, env and cwd hold words that
// end with a NUL; limit holds seconds. This program mounts what programs expect, brings up lo, runs the
// command with its output in files of the job folder, writes the exit status and the kernel's log there, and
// powers off.
//
// It is static, so that it does not depend on the libraries in the file system.

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/klog.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kReadAll = 3;  // SYSLOG_ACTION_READ_ALL; no header defines it
/// Time to end for processes that the command left running.
constexpr std::chrono::seconds kPatience(2);
constexpr auto kOutOfTime = "timeout";

std::string InJob(const char* name) {
  const char* job = getenv("job");
  return std::string(job == nullptr ? "/tmp" : job) + "/" + name;
}

/// Ends the guest. The runner reads the status: "exit N", "signal N", "timeout" or "error TEXT".
[[noreturn]] void Finish(const std::string& status) {
  static std::array<char, 1 << 17> log;
  const int length = klogctl(kReadAll, log.data(), static_cast<int>(log.size()));
  std::ofstream(InJob("dmesg")).write(log.data(), std::max(length, 0));
  std::ofstream(InJob("status")) << status << "\n";
  sync();
  reboot(RB_POWER_OFF);
  for (;;) {
    pause();
  }
}

std::vector<std::string> ReadWords(const char* name) {
  std::ifstream file(InJob(name));
  std::vector<std::string> words;
  for (std::string word; std::getline(file, word, '\0');) {
    words.push_back(word);
  }
  return words;
}

void Mount(const char* type, const char* folder, const char* options) {
  mkdir(folder, 0755);
  if (mount(type, folder, type, 0, options) != 0) {
    Finish(std::string("error cannot mount ") + folder + ": " + strerror(errno));
  }
}

void PrepareSystem() {
  umask(022);
  Mount("proc", "/proc", "");
  Mount("sysfs", "/sys", "");
  Mount("devtmpfs", "/dev", "mode=0755");
  Mount("devpts", "/dev/pts", "mode=0620,ptmxmode=0666");
  Mount("tmpfs", "/dev/shm", "mode=1777");
  Mount("tmpfs", "/run", "mode=0755");
  const std::array<const char*, 4> links{"fd", "fd/0", "fd/1", "fd/2"};
  const std::array<const char*, 4> names{"/dev/fd", "/dev/stdin", "/dev/stdout", "/dev/stderr"};
  for (size_t i = 0; i < links.size(); ++i) {
    if (symlink((std::string("/proc/self/") + links[i]).c_str(), names[i]) != 0) {
      Finish(std::string("error cannot make ") + names[i]);
    }
  }
  const int socketForLo = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq lo{};
  strcpy(lo.ifr_name, "lo");
  lo.ifr_flags = IFF_UP | IFF_RUNNING;
  ioctl(socketForLo, SIOCSIFFLAGS, &lo);
  close(socketForLo);
}

std::vector<char*> Pointers(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (auto& word : words) {
    pointers.push_back(word.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

[[noreturn]] void RunCommand(std::vector<std::string> command) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  setsid();
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND;
  const std::array<int, 3> streams{open("/dev/null", O_RDONLY), open(InJob("stdout").c_str(), kFlags, 0644),
                                   open(InJob("stderr").c_str(), kFlags, 0644)};
  for (int stream = 0; stream < 3; ++stream) {
    dup2(streams[static_cast<size_t>(stream)], stream);
  }
  for (int other = 3; other < 64; ++other) {
    close(other);
  }
  const auto folder = ReadWords("cwd");
  auto environment = ReadWords("env");
  if (folder.empty() || chdir(folder.front().c_str()) != 0) {
    perror("guest-init: cannot change to the working folder");
  }
  const auto arguments = Pointers(command);
  execvpe(arguments[0], arguments.data(), Pointers(environment).data());
  fprintf(stderr, "guest-init: %s: %s\n", arguments[0], strerror(errno));
  _exit(errno == ENOENT ? 127 : 126);
}

/// Reaps children, orphans included, until `child` has ended, no child is left, or time is up.
/// Returns how `child` ended; empty when it has not.
std::string WaitForChildren(pid_t child, Clock::time_point end) {
  sigset_t childSignal;
  sigemptyset(&childSignal);
  sigaddset(&childSignal, SIGCHLD);
  for (;;) {
    int status = 0;
    const pid_t ended = waitpid(-1, &status, WNOHANG);
    if (ended > 0 && ended == child) {
      return WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                               : "signal " + std::to_string(WTERMSIG(status));
    }
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(end - Clock::now()).count();
    if (ended < 0 || left <= 0) {
      return {};
    }
    if (ended == 0) {
      const timespec wait{left / 1'000'000'000, static_cast<long>(left % 1'000'000'000)};
      sigtimedwait(&childSignal, nullptr, &wait);
    }
  }
}

}  // namespace

int main() {
  PrepareSystem();
  const auto command = ReadWords("argv");
  const auto limit = ReadWords("limit");
  if (command.empty() || limit.empty()) {
    Finish("error the job folder has no command or no time limit");
  }
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, nullptr);  // a SIGCHLD that comes early stays pending
  const pid_t child = fork();
  if (child == 0) {
    RunCommand(command);
  }
  auto status = WaitForChildren(child, Clock::now() + std::chrono::seconds(std::atol(limit.front().c_str())));
  if (status.empty()) {
    status = kOutOfTime;
    kill(-1, SIGTERM);
    WaitForChildren(child, Clock::now() + kPatience);
  }
  // With a timeout, because a process that hangs in the kernel cannot be killed.
  kill(-1, SIGKILL);
  WaitForChildren(-1, Clock::now() + kPatience);
  Finish(status);
}
