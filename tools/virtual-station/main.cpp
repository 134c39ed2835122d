// virtual-station: the station around the RFID daemon, for trying it out and for tests.

#include <fmt/format.h>

#include <functional>

#include "tools/common/channel.h"
#include "tools/common/commandline.h"
#include "tools/common/output.h"
#include "tools/common/stopsignals.h"
#include "tools/common/texts.h"
#include "tools/virtual-station/bench.h"
#include "tools/virtual-station/benchserver.h"
#include "tools/virtual-station/configuration.h"
#include "tools/virtual-station/virtualstation.h"

namespace {

constexpr const char* kTool = "virtual-station";

struct Options {
  std::string root = "/";
  std::string feedbackAnswer = "ok";
  std::string uid;
  bool on = false;
  std::string nfcSocket;
  std::string logFile;
  int port = 8080;
  std::function<int()> command;
};

std::string TextOf(const VirtualStation::Call& call) {
  if (const auto* event = std::get_if<ipc::MFbEventType>(&call)) {
    const std::string& name = ipc::EFbEventType_Name(event->type());
    return fmt::format("feedback {} ({})", name.empty() ? "unknown" : name, static_cast<int>(event->type()));
  }
  return "signal " + Printable(SignalText(std::get<ipc::MSignal>(call)));
}

int Serve(const Options& options) {
  const StopSignals signals;
  const RpcConfig config = LoadRpcConfig(options.root);
  LineOutput output;
  const auto answer = options.feedbackAnswer == "ok"        ? VirtualStation::EAnswer::Ok
                      : options.feedbackAnswer == "illegal" ? VirtualStation::EAnswer::Illegal
                                                            : VirtualStation::EAnswer::Hang;
  const auto print = [&](const VirtualStation::Call& call) {
    try {
      output.Write(TextOf(call));
    } catch (const std::exception& e) {
      PrintError(kTool, e.what());
    }
  };
  if (config.peers.count("Feedback") + config.peers.count("Diagnostics") == 0) {
    throw std::runtime_error("nothing to serve: plex.json names neither Feedback nor Diagnostics");
  }
  const VirtualStation station(config.peers, print, answer);
  for (const auto& [name, address] : config.peers) {
    const bool isServed = name == "Feedback" || name == "Diagnostics";
    PrintError(kTool, isServed ? fmt::format("serving {} at {}", name, address) : "not serving " + name);
  }
  signals.Wait();
  return 0;
}

int ServeBench(const Options& options) {
  const StopSignals signals;
  LineOutput output;
  Bench bench({LoadRpcConfig(options.root), options.nfcSocket, options.logFile});
  const BenchServer server(
      bench.Model(), [&bench](const Json::Value& request) { return bench.Do(request); }, options.port);
  if (!output.Write(server.Url())) {
    return 0;
  }
  signals.Wait();
  bench.Stop();
  return 0;
}

int ListCards(const Configuration& configuration) {
  LineOutput output;
  for (const std::string& uid : configuration.PermittedUids()) {
    if (!output.Write(Printable(uid))) {
      break;
    }
  }
  return 0;
}

/// The lengths that tags have and that the daemon accepts.
std::string CheckUid(const std::string& text) {
  const bool isHex = text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
  return isHex && (text.size() == 8 || text.size() == 14 || text.size() == 16)
             ? ""
             : "a UID has 4, 7 or 8 bytes, two hexadecimal digits each";
}

CLI::App& Add(CLI::App& parent, Options& options, const char* name, const char* description,
              const std::function<int()>& command) {
  return *parent.add_subcommand(name, description)->callback([&options, command] {
    options.command = command;
  });
}

void AddServices(CLI::App& app, Options& options) {
  Add(app, options, "serve", "Serve Feedback and Diagnostics and print every call, until Ctrl-C",
      [&options] { return Serve(options); })
      .add_option("--feedback-answer", options.feedbackAnswer, "How feedback calls are answered")
      ->check(CLI::IsMember({"ok", "illegal", "hang"}))
      ->capture_default_str();
  auto& bench =
      Add(app, options, "bench",
          "Serve a page on this machine that shows the station and drives it, until Ctrl-C; prints its URL",
          [&options] { return ServeBench(options); });
  bench.add_option("--nfc", options.nfcSocket, "The socket of virtual-nfc, to hold cards to its reader")
      ->envname("VIRTUAL_NFC_SOCKET")
      ->type_name("SOCKET");
  bench.add_option("--port", options.port, "The port, 0 for any free one")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  bench.add_option("--log", options.logFile, "A file with the daemon's log, to show its last lines")
      ->type_name("FILE");
}

void AddConfiguration(CLI::App& app, Options& options) {
  const auto configuration = [&options] { return Configuration(LoadRpcConfig(options.root).configuration); };
  auto& card = *app.add_subcommand("card", "Show and change the local list of permitted cards");
  card.require_subcommand(1);
  const auto addPermit = [&](const char* name, const char* description, bool on) {
    Add(card, options, name, description,
        [&options, configuration, on] {
          const bool isChanged = configuration().Permit(options.uid, on);
          if (!isChanged) {
            PrintError(kTool, options.uid + (on ? " is in the list already" : " is not in the list"));
          }
          return on || isChanged ? 0 : kFailureStatus;
        })
        .add_option("UID", options.uid, "Hexadecimal, for example 04A12B5C")
        ->required()
        ->check(CheckUid);
  };
  addPermit("add", "Permit a card", true);
  addPermit("remove", "Remove a card from the local list", false);
  Add(card, options, "list", "Print the UIDs, one a line",
      [configuration] { return ListCards(configuration()); });
  const auto addSwitch = [&](const char* name, const char* description, const char* key) {
    AddSwitch(Add(app, options, name, description,
                  [&options, configuration, key] {
                    configuration().Switch(key, options.on);
                    return 0;
                  }),
              options.on);
  };
  addSwitch("ocpp", "Cards are authorised by the backend (on) or by the local list (off)", kOcppActive);
  addSwitch("free-charging", "Charging without authorisation", kFreeCharging);
}

int RunCommandLine(int argc, char** argv) {
  Options options;
  CLI::App app(
      "The station around the RFID daemon: its feedback and diagnostics services and its configuration.",
      kTool);
  SetUpTool(app);
  app.require_subcommand(1);
  app.add_option("--root", options.root,
                 "Root folder of the station; etc/plex.json below it names the addresses")
      ->type_name("FOLDER")
      ->capture_default_str();
  app.footer("Exit status: 0 done, 1 failed, 2 the command line cannot be understood.");
  AddServices(app, options);
  AddConfiguration(app, options);
  if (const auto status = ParseCommandLine(app, argc, argv)) {
    return *status;
  }
  SilenceRpcLibrary();
  return options.command();
}

}  // namespace

int main(int argc, char** argv) {
  return RunTool(kTool, RunCommandLine, argc, argv);
}
