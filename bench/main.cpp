// rfid-bench: the cost of the daemon beside that of the libraries alone.
#include <fmt/format.h>
#include <json/reader.h>
#include <json/writer.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <thread>

#include "measures.h"
#include "measuring.h"
#include "picture.h"
#include "systemlog.h"
#include "tools/common/channel.h"
#include "tools/common/commandline.h"
#include "tools/common/output.h"
#include "tools/harness/process.h"

namespace {

using namespace bench;

constexpr const char* kName = "rfid-bench";
/// The documentation has a run's figures between these lines.
constexpr const char* kBegin = "<!-- figures of a run: begin -->\n";
constexpr const char* kEnd = "<!-- figures of a run: end -->\n";

struct Measure {
  const char* name;
  Run (*run)(const Plan& plan);
};

constexpr std::array<Measure, 9> kMeasures{{{"list", MeasureLookUp},
                                            {"list-loading", MeasureListLoading},
                                            {"engine", MeasureEngine},
                                            {"card", MeasureCard},
                                            {"card-on-one-core", MeasureCardOnOneCore},
                                            {"system-calls", MeasureSystemCalls},
                                            {"rest", MeasureRest},
                                            {"start", MeasureStart},
                                            {"flood", MeasureFlood}}};

struct Options {
  std::vector<std::string> measures;
  int runs = 1;
  Plan plan;
  std::string json;
  std::string document;
  bool servesLog = false;
  std::string inside;  ///< the measure to run in this process
};

const Measure& Find(const std::string& name) {
  for (const Measure& measure : kMeasures) {
    if (measure.name == name) {
      return measure;
    }
  }
  throw std::runtime_error("unknown measure " + name);
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream file(path);
  if (!(file << content).flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

Run RunInProcess(const std::string& name, const Plan& plan) {
  const TemporaryFolder folder;
  std::vector<std::string> command{Program(kName), "--inside", name, "--json", folder.Path("run.json")};
  if (!plan.isFull) {
    command.emplace_back("--smoke");
  }
  if (!plan.before.empty()) {
    command.insert(command.end(), {"--before", plan.before});
  }
  Process process(command, {}, folder.Path("output"), folder.Path("errors"));
  if (const auto end = process.Wait(std::chrono::minutes(10)); end != "exit 0") {
    throw std::runtime_error(
        fmt::format("{}: {}\n{}", name, end.value_or("no end"), ReadFile(folder.Path("errors"))));
  }
  Json::Value json;
  std::istringstream(ReadFile(folder.Path("run.json"))) >> json;
  return RunFromJson(json);
}

double Load() {
  double load = 0;
  std::ifstream("/proc/loadavg") >> load;
  return load;
}

/// The conditions of the run, in one sentence.
std::string Surroundings(int runs, double loadBefore) {
  char date[16];
  const std::time_t now = std::time(nullptr);
  std::strftime(date, sizeof date, "%F", std::localtime(&now));
  const bool hasLog = access(_PATH_LOG, F_OK) == 0;
  return fmt::format(
      "{}; {} run{}, medians; {} processors with a load of {:.1f} before and {:.1f} after; {}.\n", date, runs,
      runs == 1 ? "" : "s", std::thread::hardware_concurrency(), loadBefore, Load(),
      hasLog ? "lines for the system log are taken"
             : "there is no system log, so a line for it costs next to nothing");
}

void Document(const std::string& folder, const std::string& text, const std::vector<Run>& runs) {
  const std::string page = folder + "/performance.md";
  const std::string before = ReadFile(page);
  const auto begin = before.find(kBegin);
  const auto end = before.find(kEnd);
  if (begin == std::string::npos || end == std::string::npos || end < begin) {
    throw std::runtime_error(page + " lacks the markers around the figures");
  }
  WriteFile(page, before.substr(0, begin) + kBegin + "\n" + text + "\n" + before.substr(end));
  const auto curves = [&](const std::string& prefix, const std::vector<std::string>& names) {
    std::vector<NamedCurve> named;
    named.reserve(names.size());
    for (const auto& name : names) {
      named.push_back({name, MedianCurve(runs, fmt::format("{} {}", prefix, name))});
    }
    return named;
  };
  WriteFile(folder + "/list.svg", MakeCurves("Looking a card up in the standalone list", "cards in the list",
                                             "us", curves("list", {"rfidd", "hash set", "SQLite"})));
  WriteFile(folder + "/card.svg", MakeBars("Where a card's time goes", "us",
                                           {"until the target is asked for", "until the target is told",
                                            "until the feedback for the scan",
                                            "until the feedback for the result", "until the notification"},
                                           curves("card", {"rfidd", "the same trips"})));
}

int RunAll(const Options& options) {
  std::vector<std::string> names = options.measures;
  if (names.empty()) {
    for (const Measure& measure : kMeasures) {
      names.emplace_back(measure.name);
    }
  }
  std::optional<SystemLog> log;
  if (options.servesLog) {
    log.emplace();
  }
  const double load = Load();
  std::vector<Run> runs(static_cast<std::size_t>(options.runs));
  for (std::size_t i = 0; i < runs.size(); ++i) {
    for (const auto& name : names) {
      std::cerr << fmt::format("run {} of {}: {}\n", i + 1, runs.size(), name);
      runs[i].Add(RunInProcess(name, options.plan));
    }
  }
  const auto figures = Summarise(runs);
  const std::string text = Surroundings(options.runs, load) + "\n" + Table(figures);
  if (!options.json.empty()) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    WriteFile(options.json, Json::writeString(writer, ToJson(figures)) + "\n");
  }
  if (!options.document.empty()) {
    Document(options.document, text, runs);
  }
  LineOutput().Write("\n" + text);
  return 0;
}

int RunCommandLine(int argc, char** argv) {
  Options options;
  CLI::App app("Measures the daemon beside what the libraries alone cost, and prints the ratios.", kName);
  SetUpTool(app);
  std::string names;
  for (const Measure& measure : kMeasures) {
    names += std::string(names.empty() ? "" : ", ") + measure.name;
  }
  app.add_option("MEASURE", options.measures, "What to measure, everything by default: " + names);
  app.add_option("--runs", options.runs, "How often everything is measured")
      ->capture_default_str()
      ->check(CLI::Range(1, 100));
  app.add_flag("!--smoke", options.plan.isFull, "Only see that the measures work: the figures mean nothing");
  app.add_option("--before", options.plan.before, "Another build of rfidd, to compare with")
      ->check(CLI::ExistingFile);
  app.add_option("--json", options.json, "Also write the figures to this file");
  app.add_option("--document", options.document,
                 "Also put them into performance.md of this folder, with pictures");
  app.add_flag("--system-log", options.servesLog, "Serve as the machine's system log, which has none");
  app.add_option("--inside", options.inside)->group("");
  if (const auto status = ParseCommandLine(app, argc, argv)) {
    return *status;
  }
  for (const auto& name : options.measures) {
    Find(name);
  }
  SilenceRpcLibrary();
  if (options.inside.empty()) {
    return RunAll(options);
  }
  const Run run = Find(options.inside).run(options.plan);
  WriteFile(options.json, Json::writeString(Json::StreamWriterBuilder(), ToJson(run)));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  return RunTool(kName, RunCommandLine, argc, argv);
}
