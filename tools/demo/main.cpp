// rfid-demo: plays a day of a station with the real daemon.

#include <fmt/format.h>

#include <csignal>
#include <filesystem>
#include <regex>

#include "tools/common/commandline.h"
#include "tools/common/tail.h"
#include "tools/demo/story.h"

namespace {

namespace fs = std::filesystem;

constexpr int kInterruptedStatus = 130;

/// The word, quoted for the shell where necessary.
std::string Quoted(const std::string& word) {
  constexpr const char* kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-+./:=@,";
  return word.find_first_not_of(kPlain) == std::string::npos
             ? word
             : "'" + std::regex_replace(word, std::regex("'"), "'\\''") + "'";
}

void PrintWhatToTry(Narrator& narrator, const Station& station, const std::string& page) {
  const std::string programs = fs::read_symlink("/proc/self/exe").parent_path();
  const auto root = Quoted(station.Folder());
  const auto ctl = Quoted(programs + "/rfidctl") + " --root " + root;
  const auto nfc = Quoted(programs + "/virtual-nfc") + " --socket " + Quoted(station.Path("nfc.sock"));
  const auto settings = Quoted(programs + "/virtual-station") + " --root " + root;
  narrator.Title("The daemon reads cards. To try, in another terminal:");
  narrator.Say(fmt::format(R"(
See and drive it from a browser on this machine:
  {page}
Show what it notifies, and its log:
  {ctl} watch
  tail -f {log}

Hold a card to the reader for a moment: one that is in the list, then one that is not:
  {nfc} tap 04A12B5C --hold 0.3
  sleep 1
  {nfc} tap E007060504030201 --tech iso15693 --hold 0.3

Simulate a card without the reader, learn cards, change state, see the diagnostics:
  {ctl} inject 04A1B2C3
  {ctl} learning on
  {ctl} disable
  {ctl} enable
  {ctl} signals

Permit a card, let the backend authorise, charge without authorisation:
  {settings} card add 11223344
  {settings} ocpp on
  {settings} free-charging on

Let the reader fail after the next card; pull it out:
  {nfc} rule add START_POLL nth=1 errno=EPROTO
  {nfc} unplug

Ctrl-C ends it all.)",
                           fmt::arg("page", page), fmt::arg("ctl", ctl), fmt::arg("nfc", nfc),
                           fmt::arg("settings", settings), fmt::arg("log", Quoted(station.Path("log")))));
}

/// Runs the station, with the bench as its peers, until a signal comes.
void Stay(Station& station, Narrator& narrator, const StopSignals& signals) {
  const std::string page = station.StartBench();
  Play(station, narrator, signals, true);
  PrintWhatToTry(narrator, station, page);
  while (!signals.HaveCome(std::chrono::seconds(1))) {
    station.Control().Clear();
    if (const auto end = station.DaemonsEnd()) {
      throw Failure("the daemon has ended with " + *end);
    }
  }
  station.Daemon().Signal(SIGINT);
  narrator.Say("\nThe daemon ended with " + station.EndDaemon());
}

int Run(bool stays) {
  const StopSignals signals;
  Narrator narrator;
  Station station(NewFolder("rfid-demo"), {}, kOwnSession);
  station.KeepFolder();
  station.WriteFile("hub/rfid_standalone.json", R"({"Tokens": [{"RfidTokenUid": "04A12B5C"}]})");
  narrator.Say("The station is in " + station.Folder().string());
  try {
    if (stays) {
      Stay(station, narrator, signals);
    } else {
      Play(station, narrator, signals, false);
      narrator.AllHeld();
    }
    narrator.Say("The daemon's log: " + station.Path("log"));
    return 0;
  } catch (const Interrupted&) {
    return kInterruptedStatus;
  } catch (const Failure& failure) {
    narrator.Failed(failure.what());
    narrator.Say(fmt::format("\nThe last lines of the log:{}\nThe whole log: {}", Tail(station.Log()),
                             station.Path("log")));
    return kFailureStatus;
  }
}

int RunCommandLine(int argc, char** argv) {
  bool stays = false;
  CLI::App app("Shows the daemon's main job with a simulated reader, and checks every step.", "rfid-demo");
  SetUpTool(app);
  app.add_flag("--stay", stays, "Stop at a daemon that reads cards, print what to try, and run until Ctrl-C");
  app.footer("Exit status: 0 every check held, 1 one did not, 2 the command line cannot be understood.");
  if (const auto status = ParseCommandLine(app, argc, argv)) {
    return *status;
  }
  return Run(stays);
}

}  // namespace

int main(int argc, char** argv) {
  return RunTool("demo", RunCommandLine, argc, argv);
}
