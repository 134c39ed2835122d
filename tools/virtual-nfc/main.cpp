#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>

#include "tools/common/commandline.h"
#include "tools/virtual-nfc/kernel/tag.h"
#include "tools/virtual-nfc/server/controlprotocol.h"
#include "tools/virtual-nfc/server/controlserver.h"
#include "tools/virtual-nfc/server/virtualnfc.h"
#include "tools/virtual-nfc/trace/recordclient.h"

namespace {

using namespace virtualnfc;

enum ExitStatus { Done = 0, Refused = 1, Usage = kUsageStatus, Unreachable = 3 };

constexpr double kMaxHold = 24.0 * 60 * 60;

/// Whether everything that was printed is with its reader; says so when not.
bool IsWritten() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
    return true;
  }
  fmt::print(stderr, "virtual-nfc: cannot write to standard output: {}\n",
             std::generic_category().message(errno));
  return false;
}

int Serve(const std::string& address, const VirtualNfcSettings& settings) {
  // Before there are threads, so that all of them leave these signals to this one.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  try {
    VirtualNfc server(settings, address);
    const ControlServer control(server);
    fmt::print("virtual-nfc: ready at {}\n", address);
    if (!IsWritten()) {
      return Refused;
    }
    int signal = 0;
    sigwait(&ending, &signal);
    return Done;
  } catch (const std::runtime_error& error) {
    fmt::print(stderr, "virtual-nfc: {}\n", error.what());
    return Unreachable;
  }
}

int Ask(const std::string& address, const std::string& line) {
  const std::string reply = AskServer(address, line);
  if (reply.empty()) {
    fmt::print(stderr, "virtual-nfc: cannot reach a server at {}: {}\n", address,
               std::generic_category().message(errno));
    return Unreachable;
  }
  const std::size_t firstEnd = std::min(reply.find('\n'), reply.size() - 1);
  const std::string first = reply.substr(0, firstEnd);
  if (first != "ok") {
    fmt::print(stderr, "virtual-nfc: {}\n", first);
    return Refused;
  }
  fmt::print("{}", reply.substr(firstEnd + 1));
  return Done;
}

/// The preload lies beside the tool where it was built, and in the library folder where it was installed.
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
  fmt::print(stderr,
             "virtual-nfc: virtual-nfc-preload.so is neither in {} nor in ../lib/virtual-nfc from there\n",
             folder.string());
  return Refused;
}

int RecordServer(const std::string& address, const std::string& file, std::uint32_t count) {
  switch (RecordTo(address, file, count)) {
    case RecordEnd::Done:
      return Done;
    case RecordEnd::Refused:
      return Refused;
    case RecordEnd::NoServer:
      return Unreachable;
  }
  return Unreachable;
}

int RunCommand(int argc, char** argv) {
  CLI::App app(
      "A kernel with an NFC reader, simulated: for programs that talk to the kernel's NFC family on machines "
      "without one.\nStart a server with 'serve', start the program with what 'env' prints, then tap tags.",
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
  CLI::App* serve = app.add_subcommand("serve", "be the kernel until SIGINT or SIGTERM");
  serve->add_flag("--no-device", noDevice, "begin without a reader");
  serve->add_flag_callback(
      "--nci", [&settings] { settings.kernel.stack = Stack::Nci; },
      "a reader whose chip does the protocol; without, the kernel does it");
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
  tap->add_option("--hold", hold, "take it away again after that time; without, it stays until 'remove'")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, kMaxHold));
  tap->callback([&] {
    action = [&] {
      const std::string time = hold > 0 ? fmt::format(" {}", std::lround(hold * 1000)) : "";
      return Ask(address, fmt::format("tap {} {}{}", kind, uid, time));
    };
  });

  const auto plain = [&](const char* name, const char* help) {
    app.add_subcommand(name, help)->callback([&action, &address, name] {
      action = [&address, name] { return Ask(address, name); };
    });
  };
  plain("remove", "take all tags away");
  plain("plug", "plug a reader in");
  plain("unplug", "pull the reader out");

  std::string faultName;
  bool isOff = false;
  CLI::App* fault = app.add_subcommand("fault", "let something go wrong with the reader without a word");
  fault->add_option("NAME", faultName)->required()->check(CLI::IsMember(FaultNames()));
  fault->add_flag("--off", isOff, "it is over");
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
      "Commands: GET_DEVICE DEV_UP DEV_DOWN START_POLL STOP_POLL GET_TARGET UNSPEC GETFAMILY any, a number, "
      "and the\n"
      "events TARGETS_FOUND DEVICE_ADDED DEVICE_REMOVED\n"
      "Conditions: nth=N times=N port=N device=N\n"
      "Actions: errno=E delay=MS fault=NAME cross unplug drop truncate=N "
      "garble[=long|short|missing|twice|nested] duplicate\n"
      "reverse no-done interrupted seq=N sender=N overrun close");
  add->add_option("RULE", spec)->required();
  add->callback(
      [&] { action = [&] { return Ask(address, fmt::format("rule add {}", fmt::join(spec, " "))); }; });
  rule->add_subcommand("list", "show the rules and how often they fired")->callback([&] {
    action = [&] { return Ask(address, "rule list"); };
  });
  rule->add_subcommand("clear", "behave again")->callback([&] {
    action = [&] { return Ask(address, "rule clear"); };
  });

  std::string file;
  std::uint32_t count = 0;
  CLI::App* record =
      app.add_subcommand("record", "write down what programs and the kernel say to each other");
  record->add_option("FILE", file, "where to; without, to standard output");
  record->add_option("--count", count, "end after so many messages")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  record->callback([&] { action = [&] { return RecordServer(address, file, count); }; });

  app.final_callback([&] {
    if (address.empty()) throw CLI::RequiredError("--socket");
  });

  app.add_subcommand("env", "print the environment that takes a program to the server")->callback([&] {
    action = [&] { return PrintEnvironment(address); };
  });

  if (const auto ended = ParseCommandLine(app, argc, argv)) {
    return *ended;
  }
  const int result = action();
  return result == Done && !IsWritten() ? Refused : result;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return RunCommand(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "virtual-nfc: %s\n", error.what());
    return Refused;
  }
}
