// virtual-station: the station around the RFID daemon, for trying it out and for tests.

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <map>
#include <optional>
#include <thread>

#include "tools/common/channel.h"
#include "tools/common/commandline.h"
#include "tools/common/output.h"
#include "tools/common/stopsignals.h"
#include "tools/virtual-station/bench.h"
#include "tools/virtual-station/benchserver.h"
#include "tools/virtual-station/sectionfile.h"
#include "tools/virtual-station/virtualstation.h"

namespace {

constexpr const char* kTool = "virtual-station";
constexpr int kFailureStatus = 1;

struct Options {
  std::string root = "/";
  bool json = false;
  std::string feedbackAnswer = "ok";
  std::string uid;
  bool on = false;
  std::string nfcSocket;
  std::string logFile;
  std::optional<int> port;
};

std::string TextOf(const VirtualStation::Call& call) {
  if (const auto* event = std::get_if<ipc::MFbEventType>(&call)) {
    const std::string& name = ipc::EFbEventType_Name(event->type());
    return fmt::format("feedback {} ({})", name.empty() ? "unknown" : name, static_cast<int>(event->type()));
  }
  const auto& signal = std::get<ipc::MSignal>(call);
  return fmt::format("signal {} {} = {}{}{}", static_cast<int>(signal.id()), Printable(signal.name()),
                     Printable(signal.value()), signal.unit().empty() ? "" : " ", Printable(signal.unit()));
}

std::string JsonOf(const VirtualStation::Call& call) {
  Json::Value line;
  line["time"] = TimeForPrograms();
  if (const auto* event = std::get_if<ipc::MFbEventType>(&call)) {
    line["kind"] = "feedback";
    line["event"] = ipc::EFbEventType_Name(event->type());
    line["value"] = static_cast<int>(event->type());
  } else {
    const auto& signal = std::get<ipc::MSignal>(call);
    line["kind"] = "signal";
    line["id"] = static_cast<int>(signal.id());
    line["name"] = signal.name();
    line["value"] = signal.value();
    line["unit"] = signal.unit();
  }
  return ToJsonLine(line);
}

/// Waits for a signal, or until nobody reads the output any more.
void WaitForEnd(const StopSignals& signals) {
  pollfd waiting[] = {{signals.Descriptor(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
  while (poll(waiting, 2, -1) < 0 && errno == EINTR) {
  }
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
      output.Write(options.json ? JsonOf(call) : TextOf(call));
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
  WaitForEnd(signals);
  return 0;
}

/// Without a port, takes the usual one, or any free one if that is taken.
std::unique_ptr<BenchServer> OpenBenchServer(BenchModel& model, const BenchServer::Carrier& carrier,
                                             const std::optional<int>& port) {
  constexpr int kUsualPort = 8080;
  try {
    return std::make_unique<BenchServer>(model, carrier, port.value_or(kUsualPort));
  } catch (const std::runtime_error&) {
    if (port) {
      throw;
    }
    return std::make_unique<BenchServer>(model, carrier, 0);
  }
}

int ServeBench(const Options& options) {
  const StopSignals signals;
  LineOutput output;
  Bench bench({LoadRpcConfig(options.root), options.nfcSocket, options.logFile});
  if (!bench.PeersProblem().empty()) {
    PrintError(kTool, bench.PeersProblem());
  }
  const auto carry = [&bench](const Json::Value& request) {
    const Bench::Answer answer = bench.Do(request);
    return std::pair(answer.done, answer.text);
  };
  const auto opened = OpenBenchServer(bench.Model(), carry, options.port);
  BenchServer& server = *opened;
  std::thread serving([&server] { server.Run(); });
  struct Ender {
    Bench& bench;
    BenchServer& server;
    std::thread& serving;
    ~Ender() {
      bench.Stop();
      server.Stop();
      serving.join();
    }
  } const ender{bench, server, serving};
  if (output.Write(server.Url())) {
    WaitForEnd(signals);
  }
  return 0;
}

std::filesystem::path Store(const Options& options) {
  return LoadRpcConfig(options.root).configuration;
}

int AddCard(const Options& options) {
  if (!CardList(Store(options)).Add(options.uid)) {
    PrintError(kTool, options.uid + " is in the list already");
  }
  return 0;
}

int RemoveCard(const Options& options) {
  if (!CardList(Store(options)).Remove(options.uid)) {
    PrintError(kTool, options.uid + " is not in the list");
    return kFailureStatus;
  }
  return 0;
}

int ListCards(const Options& options) {
  LineOutput output;
  const auto uids = CardList(Store(options)).Uids();
  if (options.json) {
    Json::Value list(Json::arrayValue);
    for (const std::string& uid : uids) {
      list.append(uid);
    }
    output.Write(ToJsonLine(list));
    return 0;
  }
  for (const std::string& uid : uids) {
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

int RunCommandLine(int argc, char** argv) {
  Options options;
  std::function<int(const Options&)> command;
  CLI::App app(
      "The station around the RFID daemon: its feedback and diagnostics services and its configuration.",
      kTool);
  SetUpTool(app);
  app.require_subcommand(1);
  app.add_option("--root", options.root,
                 "Root folder of the station; etc/plex.json below it names the addresses")
      ->type_name("FOLDER")
      ->capture_default_str();
  app.add_flag("--json", options.json, "Output for programs: one JSON document a line");
  app.footer("Exit status: 0 done, 1 failed, 2 the command line cannot be understood.");
  const auto add = [&](CLI::App& parent, const char* name, const char* description,
                       auto action) -> CLI::App& {
    return *parent.add_subcommand(name, description)->callback([&command, action] { command = action; });
  };

  add(app, "serve", "Serve Feedback and Diagnostics and print every call, until Ctrl-C", Serve)
      .add_option("--feedback-answer", options.feedbackAnswer, "How feedback calls are answered")
      ->check(CLI::IsMember({"ok", "illegal", "hang"}))
      ->capture_default_str();

  auto& bench =
      add(app, "bench",
          "Serve a page on this machine that shows the station and drives it, until Ctrl-C; prints its URL",
          ServeBench);
  bench.add_option("--nfc", options.nfcSocket, "The socket of virtual-nfc, to hold cards to its reader")
      ->envname("VIRTUAL_NFC_SOCKET")
      ->type_name("SOCKET");
  bench
      .add_option("--port", options.port,
                  "The port, 0 for any free one; default: 8080 or, if that is taken, any free one")
      ->check(CLI::Range(0, 65535));
  bench.add_option("--log", options.logFile, "A file with the daemon's log, to show its last lines")
      ->type_name("FILE");

  auto& card = *app.add_subcommand("card", "Show and change the local list of permitted cards");
  card.require_subcommand(1);
  for (CLI::App* one : {&add(card, "add", "Permit a card", AddCard),
                        &add(card, "remove", "Remove a card from the local list", RemoveCard)}) {
    one->add_option("UID", options.uid, "Hexadecimal, for example 04A12B5C")->required()->check(CheckUid);
  }
  add(card, "list", "Print the UIDs, one a line", ListCards);
  AddSwitch(add(app, "ocpp", "Cards are authorised by the backend (on) or by the local list (off)",
                [](const Options& o) {
                  StationSettings(Store(o)).SetOcppActive(o.on);
                  return 0;
                }),
            options.on);
  AddSwitch(add(app, "free-charging", "Charging without authorisation",
                [](const Options& o) {
                  StationSettings(Store(o)).SetFreeCharging(o.on);
                  return 0;
                }),
            options.on);

  if (const auto status = ParseCommandLine(app, argc, argv)) {
    return *status;
  }
  SilenceRpcLibrary();
  return command(options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return RunCommandLine(argc, argv);
  } catch (const std::exception& e) {
    PrintError(kTool, e.what());
    return kFailureStatus;
  }
}
