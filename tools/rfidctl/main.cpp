// rfidctl: controls the RFID daemon and shows what it notifies.

#include <algorithm>
#include <cstdlib>

#include "common/channel.h"
#include "common/commandline.h"
#include "common/output.h"
#include "framework/rpc.h"
#include "rfidctl/requests.h"
#include "rfidctl/watch.h"

namespace {

constexpr const char* kFooter =
    "Exit status:\n"
    "  0  done; watch: also when Ctrl-C, SIGTERM or --timeout ended it and there was no --count,\n"
    "     and when nobody reads its output any more\n"
    "  1  the daemon refused the request: it does not fit its present state; or the diagnostics service\n"
    "     does not list its signals; or the output cannot be written\n"
    "  2  the command line cannot be understood\n"
    "  3  the daemon, or for signals the diagnostics service, cannot be reached\n"
    "  4  watch ended before --count";

struct Options {
  std::string root = "/";
  std::string address;
  bool json = false;
  bool on = false;
  std::string uid;
  std::string level;
  double timeout = 0;
  std::vector<std::string> kinds;
  WatchOptions watch;
};

/// The checks of command line arguments: empty when the text can be used, what is wrong otherwise.

std::string CheckCount(const std::string& text) {
  const bool isNumber = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  return isNumber && text.size() <= 9 && text.find_first_not_of('0') != std::string::npos
             ? ""
             : text + " is no number from 1 to 999999999";
}

std::string CheckSeconds(const std::string& text) {
  constexpr double kYear = 366.0 * 24 * 60 * 60;
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str(), &end);
  return *end == '\0' && seconds > 0 && seconds <= kYear ? ""
                                                         : text + " is no number of seconds up to a year";
}

/// The daemon judges the UID, but what is no text cannot be sent to it.
std::string CheckText(const std::string& text) {
  const auto isAscii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
  return std::all_of(text.begin(), text.end(), isAscii) ? "" : "a UID has hexadecimal digits only";
}

std::string CheckAddress(const std::string& text) {
  constexpr std::size_t kLongest = 5 + 107;  // "unix:" and what the system has room for
  const auto colon = text.rfind(':');
  const std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
  const bool isUnix = text.rfind("unix:", 0) == 0 && text.size() > 5;
  const bool isTcp = colon != 0 && !port.empty() && port.size() <= 5 &&
                     port.find_first_not_of("0123456789") == std::string::npos && std::stoi(port) >= 1 &&
                     std::stoi(port) <= 65535;
  if (isUnix && text.size() > kLongest) {
    return "a socket's path has no more than 107 characters";
  }
  return isUnix || isTcp ? "" : "'" + text + "' is neither unix:PATH nor HOST:PORT";
}

void AddCommands(CLI::App& app, Options& options) {
  app.add_subcommand("state", "Print the daemon's state");
  app.add_subcommand("enable", "Start reading cards");
  app.add_subcommand("disable", "Stop reading cards; the first one completes the daemon's start-up");

  AddSwitch(*app.add_subcommand("learning", "Notify cards as learning tokens instead of authorising them"),
            options.on);

  app.add_subcommand("inject", "Simulate a card at the reader; this can start a charge")
      ->add_option("UID", options.uid, "Hexadecimal, 8 to 16 digits; the daemon judges it")
      ->required()
      ->check(CheckText);

  auto* watch = app.add_subcommand("watch", "Print states, signs of life and cards as they are notified");
  watch->add_option("--count", options.watch.count, "End after so many lines")->check(CheckCount);
  watch->add_option("--timeout", options.timeout, "End after so many seconds")->check(CheckSeconds);
  watch->add_option("--only", options.kinds, "Show and count these kinds only")
      ->delimiter(',')
      ->check(CLI::IsMember({"state", "alive", "token", "learning-token"}));

  app.add_subcommand("log-level", "Print the daemon's log level, or change it")
      ->add_option("LEVEL", options.level)
      ->check(CLI::IsMember(LogLevelNames()));

  app.add_subcommand("signals",
                     "Print what the station's diagnostics service has: the last value of every signal");
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

EExit Run(const CLI::App& app, Options& options) {
  const auto wanted = [&](const char* command) { return app.got_subcommand(command); };
  const Daemon daemon = Addressee(options, wanted("signals"));
  if (wanted("signals")) {
    return PrintSignals(daemon);
  }
  if (wanted("state")) {
    return PrintState(daemon);
  }
  if (wanted("enable")) {
    return Enable(daemon);
  }
  if (wanted("disable")) {
    return Disable(daemon);
  }
  if (wanted("learning")) {
    return SetLearning(daemon, options.on);
  }
  if (wanted("inject")) {
    return InjectToken(daemon, options.uid);
  }
  if (wanted("log-level")) {
    return options.level.empty() ? PrintLogLevel(daemon) : SetLogLevel(daemon, options.level);
  }
  options.watch.kinds.insert(options.kinds.begin(), options.kinds.end());
  if (options.timeout > 0) {
    options.watch.timeout = std::chrono::duration<double>(options.timeout);
  }
  return Watch(daemon, options.watch);
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
  app.add_option("--address", options.address, "Whom to ask, instead of --root: unix:PATH or HOST:PORT")
      ->excludes(root)
      ->check(CheckAddress);
  app.add_flag("--json", options.json, "Output for programs: one JSON object a line");
  AddCommands(app, options);

  if (const auto status = ParseCommandLine(app, argc, argv)) {
    return *status;
  }
  SilenceRpcLibrary();
  try {
    return static_cast<int>(Run(app, options));
  } catch (const Rpc::ConfigurationException& e) {
    PrintError(kTool, std::string("cannot tell where to ask: ") + e.what());
    return static_cast<int>(EExit::Unreachable);
  } catch (const Unreachable& e) {
    PrintError(kTool, e.what());
    return static_cast<int>(EExit::Unreachable);
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return RunCommandLine(argc, argv);
  } catch (const std::exception& e) {
    PrintError(kTool, e.what());
    return static_cast<int>(EExit::Failed);
  }
}
