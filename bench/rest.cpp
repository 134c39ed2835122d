#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <thread>

#include "cardsubject.h"
#include "measures.h"
#include "measuring.h"

namespace bench {

namespace {

/// A running bare gRPC server.
class Server {
 public:
  Server()
      : mProcess({Program("rfid-bench-floor"), "server", "unix:" + mFolder.Path("socket")}, {},
                 mFolder.Path("output"), mFolder.Path("errors")) {
    if (!Eventually([&] { return ReadFile(mFolder.Path("errors")).find("ready") != std::string::npos; })) {
      throw std::runtime_error("the bare server does not start");
    }
  }
  const Process& Get() const { return mProcess; }

 private:
  const TemporaryFolder mFolder;
  Process mProcess;
};

/// Measures a program that is idle.
struct Resting {
  Resting(const char* programName, const Process& program) : name(programName), process(&program) {}

  void Begin() {
    switches = static_cast<double>(ContextSwitches(process->GetPid()));
    cpu = CpuMicroseconds(process->GetPid());
  }
  void End(double seconds) {
    switches = (static_cast<double>(ContextSwitches(process->GetPid())) - switches) / seconds;
    cpu = (CpuMicroseconds(process->GetPid()) - cpu) / seconds;
    memory = static_cast<double>(process->Memory("VmRSS")) / 1024;
    threads = static_cast<double>(process->Threads());
  }

  const char* name;
  const Process* process;
  double switches = 0;
  double cpu = 0;
  double memory = 0;
  double threads = 0;
};

/// The size of a program without debug information, in MiB.
double StrippedSize(const std::string& program) {
  const TemporaryFolder folder;
  Process strip({"/usr/bin/strip", "-o", folder.Path("stripped"), program}, {}, folder.Path("output"),
                folder.Path("errors"));
  if (strip.Wait() != "exit 0") {
    throw std::runtime_error("strip: " + ReadFile(folder.Path("errors")));
  }
  return static_cast<double>(std::filesystem::file_size(folder.Path("stripped"))) / 1024 / 1024;
}

}  // namespace

Run MeasureRest(const Plan& plan) {
  const std::chrono::duration<double> time(plan.isFull ? 30 : 0.5);
  const CardSubject daemon(Daemon());
  const Server server;
  const auto before = plan.before.empty() ? nullptr : std::make_unique<CardSubject>(plan.before);
  std::vector<Resting> subjects{Resting("rfidd", daemon.Program()),
                                Resting("bare gRPC server", server.Get())};
  if (before) {
    subjects.emplace_back("rfidd before", before->Program());
  }
  std::this_thread::sleep_for(time / 10);  // lets the work of starting and enabling end
  for (Resting& subject : subjects) {
    subject.Begin();
  }
  std::this_thread::sleep_for(time);
  for (Resting& subject : subjects) {
    subject.End(time.count());
  }
  Run run;
  const Resting& ours = subjects.front();
  for (std::size_t i = 1; i < subjects.size(); ++i) {
    const Resting& theirs = subjects[i];
    const auto wanted = [&](double ratio) { return i == 1 ? ratio : 0; };
    run.rows.push_back(
        {"at rest: context switches", "/s", ours.switches, theirs.name, theirs.switches, wanted(1.1)});
    run.rows.push_back({"at rest: CPU time of a second", "us", ours.cpu, theirs.name, theirs.cpu});
    run.rows.push_back({"at rest: memory", "MiB", ours.memory, theirs.name, theirs.memory, wanted(1.15)});
    run.rows.push_back({"at rest: threads", "", ours.threads, theirs.name, theirs.threads, wanted(1.6)});
  }
  return run;
}

Run MeasureStart(const Plan& plan) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.Path("etc"));
  folder.Write("etc/plex.json", R"({"listen": "unix:run/rfid.sock", "configuration": "hub",
    "peers": {"Feedback": "unix:run/feedback.sock", "Diagnostics": "unix:run/diagnostics.sock"}})");
  const auto timeDaemon = [&](const std::string& program) {
    return TimeToLine({program, "-r", folder.Path("")}, "Starting state machine");
  };
  std::vector<double> ours;
  std::vector<double> servers;
  std::vector<double> before;
  for (int round = plan.Count(40, 2); round > 0; --round) {
    ours.push_back(timeDaemon(Daemon()));
    servers.push_back(
        TimeToLine({Program("rfid-bench-floor"), "server", "unix:" + folder.Path("socket")}, "ready"));
    if (!plan.before.empty()) {
      before.push_back(timeDaemon(plan.before));
    }
  }
  const auto milliseconds = [](const std::vector<double>& times) { return Median(times) / 1000; };
  const char* const what = "start: until it is ready";
  Run run;
  run.rows.push_back({what, "ms", milliseconds(ours), "bare gRPC server", milliseconds(servers), 1.2});
  run.rows.push_back({"start: size of the program", "MiB", StrippedSize(Daemon()), "", 0, 0, 0.55});
  if (!plan.before.empty()) {
    run.rows.push_back({what, "ms", milliseconds(ours), "rfidd before", milliseconds(before)});
  }
  return run;
}

}  // namespace bench
