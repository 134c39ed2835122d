// rfidctl: controls the RFID daemon and shows what it notifies.

#include <algorithm>
#include <functional>

#include "framework/rpc.h"
#include "tools/common/channel.h"
#include "tools/common/commandline.h"
#include "tools/common/output.h"
#include "tools/rfidctl/commands.h"

namespace {

constexpr const char* kFooter =
    "Exit status:\n"
    "  0  done; for watch also: ended by Ctrl-C, SIGTERM or --timeout without --count, or nobody reads\n"
    "     the output any more\n"
    "  1  the daemon refused the request, the diagnostics service does not list its signals, or the\n"
    "     output cannot be written\n"
    "  2  the command line cannot be understood\n"
    "  3  the daemon, or for signals the diagnostics service, cannot be reached\n"
    "  4  watch ended before --count";

/// The daemon judges the UID, but only text can be sent to it.
std::string CheckText(const std::string& text) {
  const auto isAscii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
  return std::all_of(text.begin(), text.end(), isAscii) ? "" : "a UID has hexadecimal digits only";
}

/// A number may also be "nan" for the library.
std::string CheckDigits(const std::string& text) {
  return text.find_first_not_of("0123456789.") == std::string::npos ? ""
                                                                    : text + " is not a number of seconds";
}

std::string CheckAddress(const std::string& text) {
  constexpr std::size_t kLongestPath = 107;  // the system's limit for a socket's path
  if (text.starts_with("unix:")) {
    return text.size() > 5 + kLongestPath ? "a socket's path has no more than 107 characters" : "";
  }
  const auto colon = text.rfind(':');
  const std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
  return colon > 0 && CLI::Range(1, 65535)(std::string(port)).empty()
             ? ""
             : "'" + text + "' is neither unix:PATH nor HOST:PORT";
}

using Command = std::function<EExit(const Daemon&)>;

struct Options {
  std::string root = "/";
  std::string address;
  bool json = false;
  bool on = false;
  std::string uid;
  std::string level;
  WatchOptions watch;
  Command command;
};

void AddCommands(CLI::App& app, Options& options) {
  const auto add = [&](const char* name, const char* description, const Command& command) -> CLI::App& {
    return *app.add_subcommand(name, description)->callback([&options, command] {
      options.command = command;
    });
  };
  add("state", "Print the daemon's state", PrintState);
  const auto addRequest = [&](const char* name, const char* description,
                              const std::function<Answer(DaemonClient&)>& request) -> CLI::App& {
    return add(name, description, [request](const Daemon& daemon) { return Request(daemon, request); });
  };
  addRequest("enable", "Start reading cards", &DaemonClient::Enable);
  addRequest("disable", "Stop reading cards; the first one completes the daemon's start-up",
             &DaemonClient::Disable);
  AddSwitch(addRequest("learning", "Notify cards as learning tokens instead of authorising them",
                       [&](DaemonClient& daemon) { return daemon.SetLearning(options.on); }),
            options.on);
  addRequest("inject", "Simulate a card at the reader; this can start a charge",
             [&](DaemonClient& daemon) { return daemon.Inject(options.uid); })
      .add_option("UID", options.uid, "Hexadecimal, 8 to 16 digits; the daemon judges it")
      ->required()
      ->check(CheckText);

  auto& watch = add("watch", "Print states, signs of life and cards as they are notified",
                    [&](const Daemon& daemon) { return Watch(daemon, options.watch); });
  watch.add_option("--count", options.watch.count, "End after so many lines")
      ->check(CLI::Range(1, 999'999'999));
  watch
      .add_option_function<double>(
          "--timeout",
          [&](double seconds) { options.watch.timeout = std::chrono::duration<double>(seconds); },
          "End after so many seconds")
      ->check(CLI::Range(0.001, 366.0 * 24 * 60 * 60))
      ->check(CheckDigits);
  watch.add_option("--only", options.watch.kinds, "Show and count these kinds only")
      ->delimiter(',')
      ->check(CLI::IsMember({"state", "alive", "token", "learning-token"}));

  add("log-level", "Print the daemon's log level, or change it",
      [&](const Daemon& daemon) {
        const auto number =
            std::find(kLogLevels.begin(), kLogLevels.end(), options.level) - kLogLevels.begin();
        return options.level.empty() ? PrintLogLevel(daemon) : Request(daemon, [&](DaemonClient& client) {
          return client.SetLogLevel(static_cast<int>(number));
        });
      })
      .add_option("LEVEL", options.level)
      ->check(CLI::IsMember(kLogLevels));
  add("signals", "Print the last value of every signal that the station's diagnostics service knows",
      PrintSignals);
}

/// Where the command's request goes.
Daemon Addressee(const Options& options, bool isDiagnostics) {
  Daemon addressee{options.address, options.json, isDiagnostics ? "diagnostics service" : "daemon"};
  if (!addressee.address.empty()) {
    return addressee;
  }
  const RpcConfig config = LoadRpcConfig(options.root);
  addressee.address = config.listen;
  if (isDiagnostics) {
    const auto peer = config.peers.find(kDiagnosticsService);
    if (peer == config.peers.end()) {
      throw Rpc::ConfigurationException("etc/plex.json below " + options.root + " names no peer " +
                                        kDiagnosticsService);
    }
    addressee.address = peer->second;
  }
  return addressee;
}

int RunCommandLine(int argc, char** argv) {
  Options options;
  CLI::App app("Controls the RFID daemon and shows what it notifies.", kTool);
  SetUpTool(app);
  app.require_subcommand(1);
  app.footer(kFooter);
  auto* root = app.add_option("--root", options.root,
                              "Root folder of the station; etc/plex.json below it names the addresses")
                   ->type_name("FOLDER")
                   ->capture_default_str();
  app.add_option("--address", options.address,
                 "The server's address, instead of --root: unix:PATH or HOST:PORT")
      ->excludes(root)
      ->check(CheckAddress);
  app.add_flag("--json", options.json, "Output for programs: one JSON object a line");
  AddCommands(app, options);

  if (const auto status = ParseCommandLine(app, argc, argv)) {
    return *status;
  }
  SilenceRpcLibrary();
  try {
    return static_cast<int>(options.command(Addressee(options, app.got_subcommand("signals"))));
  } catch (const Rpc::ConfigurationException& e) {
    PrintError(kTool, std::string("cannot find the server's address: ") + e.what());
    return static_cast<int>(EExit::Unreachable);
  } catch (const Unreachable& e) {
    PrintError(kTool, e.what());
    return static_cast<int>(EExit::Unreachable);
  }
}

}  // namespace

int main(int argc, char** argv) {
  return RunTool(kTool, RunCommandLine, argc, argv);
}
