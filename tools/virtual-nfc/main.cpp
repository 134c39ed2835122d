// virtual-nfc: simulates a kernel with an NFC reader, and controls it.

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include "tools/common/commandline.h"
#include "tools/common/output.h"
#include "tools/common/stopsignals.h"
#include "tools/virtual-nfc/server/controlprotocol.h"
#include "tools/virtual-nfc/server/virtualnfc.h"

namespace {

using namespace virtualnfc;

constexpr const char* kTool = "virtual-nfc";

enum ExitStatus { Done = 0, Refused = 1, Unreachable = 3 };

int Fail(ExitStatus status, const std::string& message) {
  PrintError(kTool, message);
  return status;
}

int Serve(const std::string& address, Stack stack) {
  const StopSignals signals;
  std::optional<VirtualNfc> server;
  try {
    server.emplace(VirtualNfcSettings{.kernel = {.stack = stack}}, address);
  } catch (const std::runtime_error& error) {
    return Fail(Unreachable, error.what());
  }
  LineOutput().Write("virtual-nfc: ready at " + address);
  while (!signals.HaveCome(std::chrono::hours(1))) {
  }
  return Done;
}

int Ask(const std::string& address, const std::string& line) {
  const std::string reply = AskServer(address, line);
  if (reply.empty()) {
    return Fail(Unreachable, fmt::format("cannot reach a server at {}: {}", address,
                                         std::generic_category().message(errno)));
  }
  constexpr std::string_view kOk = "ok\n";
  constexpr std::string_view kError = "error: ";
  if (!reply.starts_with(kOk)) {
    return Fail(Refused, reply.substr(kError.size(), reply.size() - kError.size() - 1));
  }
  if (reply.size() > kOk.size()) {
    LineOutput().Write(reply.substr(kOk.size(), reply.size() - kOk.size() - 1));
  }
  return Done;
}

/// The preload is beside the tool in the build folder, and in the library folder when installed.
int PrintEnvironment(const std::string& address) {
  const std::filesystem::path folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  for (const char* place : {"virtual-nfc-preload.so", "../lib/virtual-nfc/virtual-nfc-preload.so"}) {
    const std::filesystem::path preload = folder / place;
    if (std::filesystem::exists(preload)) {
      const std::string where =
          address.front() == '@' ? address : std::filesystem::absolute(address).string();
      LineOutput().Write(fmt::format("LD_PRELOAD={} VIRTUAL_NFC_SOCKET={}",
                                     std::filesystem::canonical(preload).string(), where));
      return Done;
    }
  }
  return Fail(Refused, "virtual-nfc-preload.so is neither in " + folder.string() +
                           " nor in ../lib/virtual-nfc from there");
}

/// The command without the option that is for this tool only.
std::string LineOf(int argc, char** argv) {
  std::string line;
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word == "--socket") {
      ++i;
    } else if (!word.starts_with("--socket=")) {
      line += fmt::format("{} ", word);
    }
  }
  return line;
}

int RunCommandLine(int argc, char** argv) {
  CLI::App app(
      "Simulates a kernel with an NFC reader, for programs that talk to the kernel's NFC family.\n"
      "Start a server with 'serve', start the program with the variables that 'env' prints, then tap tags.",
      kTool);
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
  app.final_callback([&] {
    if (address.empty()) {
      throw CLI::RequiredError("--socket");
    }
  });

  CLI::App* serve = app.add_subcommand("serve", "simulate the kernel until SIGINT or SIGTERM");
  bool isNci = false;
  serve->add_flag("--nci", isNci, "a reader whose chip does the protocol; by default the kernel does it");
  ControlCommands commands(app);
  const CLI::App* env =
      app.add_subcommand("env", "print the environment that connects a program to the server");

  if (const auto ended = ParseCommandLine(app, argc, argv)) {
    return *ended;
  }
  if (serve->parsed()) {
    return Serve(address, isNci ? Stack::Nci : Stack::Digital);
  }
  return env->parsed() ? PrintEnvironment(address) : Ask(address, LineOf(argc, argv));
}

}  // namespace

int main(int argc, char** argv) {
  return RunTool(kTool, RunCommandLine, argc, argv);
}
