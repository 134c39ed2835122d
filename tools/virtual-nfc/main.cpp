#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <system_error>

#include "tools/common/commandline.h"
#include "tools/virtual-nfc/kernel/tag.h"
#include "tools/virtual-nfc/server/controlprotocol.h"
#include "tools/virtual-nfc/server/controlserver.h"
#include "tools/virtual-nfc/server/virtualnfc.h"
#include "tools/virtual-nfc/trace/recorder.h"

namespace {

using namespace virtualnfc;

enum ExitStatus { Done = 0, Refused = 1, Usage = kUsageStatus, Unreachable = 3 };

constexpr double kMaxHold = 24.0 * 60 * 60;
/// Prefix of an error in a server's reply.
constexpr std::string_view kErrorMark = "error: ";
/// Longer than the last line of a record.
constexpr std::size_t kMaxEnd = 200;

template <typename... Args>
int Fail(int status, fmt::format_string<Args...> format, Args&&... args) {
  fmt::print(stderr, "virtual-nfc: {}\n", fmt::format(format, std::forward<Args>(args)...));
  return status;
}

/// Done when everything printed has reached the output.
int FlushOutput() {
  return std::fflush(stdout) == 0 && std::ferror(stdout) == 0
             ? Done
             : Fail(Refused, "cannot write to standard output: {}", std::generic_category().message(errno));
}

int Serve(const std::string& address, const VirtualNfcSettings& settings) {
  // Blocked before there are threads, so that only sigwait takes these signals.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  try {
    VirtualNfc server(settings, address);
    const ControlServer control(server);
    fmt::print("virtual-nfc: ready at {}\n", address);
    const int flushed = FlushOutput();
    int signal = 0;
    if (flushed == Done) {
      sigwait(&ending, &signal);
    }
    return flushed;
  } catch (const std::runtime_error& error) {
    return Fail(Unreachable, "{}", error.what());
  }
}

int Ask(const std::string& address, const std::string& line) {
  const std::string reply = AskServer(address, line);
  if (reply.empty()) {
    return Fail(Unreachable, "cannot reach a server at {}: {}", address,
                std::generic_category().message(errno));
  }
  const std::size_t firstEnd = std::min(reply.find('\n'), reply.size() - 1);
  const std::string first = reply.substr(0, firstEnd);
  if (first != "ok") {
    return Fail(Refused, "{}", first.substr(std::min(first.size(), kErrorMark.size())));
  }
  fmt::print("{}", reply.substr(firstEnd + 1));
  return Done;
}

/// Writes what the server sees to a file, or to standard output when there is no name, until the record ends,
/// a signal comes or nobody reads the output.
int Record(const std::string& address, const std::string& file, std::uint32_t count) {
  for (const int ending : {SIGINT, SIGTERM}) {
    ::signal(ending, [](int) { ::_exit(Done); });
  }
  ::signal(SIGPIPE, SIG_IGN);
  UniqueFd output;
  int writeError = 0;
  std::string last;
  const auto take = [&](std::string_view part) {
    if (!output) {
      // Open the file only now, so that it stays unchanged when there is no server.
      output.Reset(file.empty() ? ::dup(STDOUT_FILENO)
                                : ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
      writeError = output ? 0 : errno;
    }
    last += part;
    last.erase(0, last.size() - std::min(last.size(), kMaxEnd));
    while (!part.empty() && writeError == 0) {
      const ssize_t length = ::write(output.Get(), part.data(), part.size());
      writeError = length < 0 && errno != EINTR ? errno : 0;
      part.remove_prefix(length > 0 ? static_cast<std::size_t>(length) : 0);
    }
    return writeError == 0;
  };
  const bool isReached = AskServer(address, fmt::format("record {}", count), std::chrono::seconds(0), take);
  const auto errorText = [](int error) { return std::generic_category().message(error); };
  if (!isReached) {
    return Fail(Unreachable, "cannot reach a server at {}: {}", address, errorText(errno));
  }
  if (writeError != 0 && writeError != EPIPE) {
    return Fail(Refused, "cannot write the record: {}", errorText(writeError));
  }
  if (writeError == EPIPE || last.ends_with(kRecordDone)) {
    return Done;
  }
  const std::size_t error = last.rfind(kRecordError);
  return error == std::string::npos
             ? Fail(Unreachable, "the server has ended, so the record ends")
             : Fail(Refused, "{}",
                    last.substr(error + kRecordError.size(), last.size() - error - kRecordError.size() - 1));
}

/// The preload is beside the tool in the build folder, and in the library folder when installed.
int PrintEnvironment(const std::string& address) {
  const std::filesystem::path folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  for (const char* place : {"virtual-nfc-preload.so", "../lib/virtual-nfc/virtual-nfc-preload.so"}) {
    const std::filesystem::path preload = folder / place;
    if (std::filesystem::exists(preload)) {
      const std::string where =
          address.front() == '@' ? address : std::filesystem::absolute(address).string();
      fmt::print("LD_PRELOAD={} VIRTUAL_NFC_SOCKET={}\n", std::filesystem::canonical(preload).string(),
                 where);
      return Done;
    }
  }
  return Fail(Refused, "virtual-nfc-preload.so is neither in {} nor in ../lib/virtual-nfc from there",
              folder.string());
}

int RunCommand(int argc, char** argv) {
  CLI::App app(
      "Simulates a kernel with an NFC reader, for programs that talk to the kernel's NFC family.\n"
      "Start a server with 'serve', start the program with the variables that 'env' prints, then tap tags.",
      "virtual-nfc");
  SetUpTool(app);
  app.require_subcommand(1);
  app.footer(
      "Exit status: 0 done, 1 the server refused, 2 wrong usage, 3 no server there (serve: cannot listen "
      "there).");

  std::string address;
  app.add_option("--socket", address, "the server's socket, a path or @name")
      ->envname("VIRTUAL_NFC_SOCKET")
      ->check([](const std::string& text) { return text.empty() ? "the name is empty" : ""; })
      ->type_name("PATH");

  std::function<int()> action;

  VirtualNfcSettings settings;
  bool noDevice = false;
  CLI::App* serve = app.add_subcommand("serve", "simulate the kernel until SIGINT or SIGTERM");
  serve->add_flag("--no-device", noDevice, "start without a reader");
  serve->add_flag_callback(
      "--nci", [&settings] { settings.kernel.stack = Stack::Nci; },
      "a reader whose chip does the protocol; by default the kernel does it");
  serve->add_flag("--assume-ealready", settings.kernel.assumeAlready,
                  "answer EALREADY where the kernel says EBUSY to START_POLL and EINVAL to STOP_POLL");
  serve->callback([&] {
    action = [&] {
      settings.devices = noDevice ? 0 : 1;
      return Serve(address, settings);
    };
  });

  std::string uid;
  std::string kind = "mifare";
  double hold = 0;
  CLI::App* tap = app.add_subcommand("tap", "put a tag in front of the reader, in place of any other");
  tap->add_option("UID", uid, "as printed on the tag, hexadecimal")->required();
  tap->add_option("--tech", kind, "kind of tag")->check(CLI::IsMember(TagKindNames()))->capture_default_str();
  tap->add_option("--hold", hold, "take it away after this time; by default it stays until 'remove'")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, kMaxHold));
  tap->callback([&] {
    action = [&] {
      const std::string time = hold > 0 ? fmt::format(" {}", std::lround(hold * 1000)) : "";
      return Ask(address, fmt::format("tap {} {}{}", kind, uid, time));
    };
  });

  const auto plain = [&](CLI::App& parent, const char* name, const char* line, const char* help) {
    parent.add_subcommand(name, help)->callback([&action, &address, line] {
      action = [&address, line] { return Ask(address, line); };
    });
  };
  plain(app, "remove", "remove", "take all tags away");
  plain(app, "plug", "plug", "plug in a reader and print its number");

  std::optional<std::uint32_t> device;
  CLI::App* unplug = app.add_subcommand("unplug", "unplug the reader");
  unplug->add_option("N", device, "the number that 'plug' printed; by default the first reader");
  unplug->callback(
      [&] { action = [&] { return Ask(address, device ? fmt::format("unplug {}", *device) : "unplug"); }; });

  std::string faultName;
  bool isOff = false;
  CLI::App* fault = app.add_subcommand("fault", "let the reader fail without telling programs");
  fault->add_option("NAME", faultName)->required()->check(CLI::IsMember(FaultNames()));
  fault->add_flag("--off", isOff, "end the fault");
  fault->callback([&] {
    action = [&] { return Ask(address, fmt::format("fault {} {}", faultName, isOff ? "off" : "on")); };
  });

  bool asJson = false;
  CLI::App* status = app.add_subcommand("status", "show the reader, the tags and who is connected");
  status->add_flag("--json", asJson, "for scripts");
  status->callback([&] { action = [&] { return Ask(address, asJson ? "status json" : "status"); }; });

  CLI::App* rule = app.add_subcommand("rule", "make the kernel misbehave");
  rule->require_subcommand(1);
  std::vector<std::string> spec;
  CLI::App* add =
      rule->add_subcommand("add", "COMMAND [CONDITION...] ACTION..., as in: START_POLL nth=2 errno=EBUSY");
  add->footer(
      "Commands: GET_DEVICE DEV_UP DEV_DOWN START_POLL STOP_POLL GET_TARGET UNSPEC GETFAMILY any, a number\n"
      "Events: TARGETS_FOUND DEVICE_ADDED DEVICE_REMOVED\n"
      "Conditions: nth=N times=N port=N device=N\n"
      "Actions: errno=E delay=MS fault=NAME cross unplug drop truncate=N "
      "garble[=long|short|missing|twice|nested] duplicate\n"
      "reverse no-done interrupted seq=N sender=N overrun close");
  add->add_option("RULE", spec)->required();
  add->callback(
      [&] { action = [&] { return Ask(address, fmt::format("rule add {}", fmt::join(spec, " "))); }; });
  plain(*rule, "list", "rule list", "show the rules and how often they fired");
  plain(*rule, "clear", "rule clear", "remove all rules");

  std::string file;
  std::uint32_t count = 0;
  CLI::App* record = app.add_subcommand("record", "write down the messages between programs and the kernel");
  record->add_option("FILE", file, "by default standard output");
  record->add_option("--count", count, "end after this many messages")
      ->type_name("N")
      ->check(CLI::Range(std::uint32_t{1}, std::numeric_limits<std::uint32_t>::max()));
  record->callback([&] { action = [&] { return Record(address, file, count); }; });

  app.final_callback([&] {
    if (address.empty()) {
      throw CLI::RequiredError("--socket");
    }
  });

  app.add_subcommand("env", "print the environment that connects a program to the server")->callback([&] {
    action = [&] { return PrintEnvironment(address); };
  });

  if (const auto ended = ParseCommandLine(app, argc, argv)) {
    return *ended;
  }
  const int result = action();
  return result == Done ? FlushOutput() : result;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return RunCommand(argc, argv);
  } catch (const std::exception& error) {
    return Fail(Refused, "{}", error.what());
  }
}
