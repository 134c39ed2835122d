#include "tools/common/commandline.h"

#include <fcntl.h>

#include "tools/common/output.h"

namespace {

/// A tool may be started without its standard streams. Then the next sockets would get their numbers. This
/// occupies the numbers with descriptors that can be neither read nor written, so that output fails as it
/// should.
void OccupyStandardStreams() {
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) < 0) {
      open("/dev/null", descriptor == 0 ? O_WRONLY : O_RDONLY);  // takes the lowest free number: this one
    }
  }
}

/// The library says "a subcommand is required" even if the command line has an unknown word: name that word.
std::string Reason(const CLI::App& app, const CLI::ParseError& error) {
  const auto unknown = app.remaining(true);
  if (error.get_name() != "RequiredError" || unknown.empty()) {
    return error.what();
  }
  const std::string& word = unknown.front();
  return (word.substr(0, 1) == "-" ? "there is no option " : "there is no command ") + word;
}

}  // namespace

int RunTool(const char* name, int (*run)(int argc, char** argv), int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    PrintError(name, e.what());
    return kFailureStatus;
  }
}

void SetUpTool(CLI::App& app) {
  OccupyStandardStreams();
  app.set_version_flag("--version", app.get_name() + " " RFID_VERSION, "Print the version and exit");
  app.fallthrough();
}

std::optional<int> ParseCommandLine(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::Success& e) {
    const int status = app.exit(e);
    if (!std::cout.flush()) {
      PrintError(app.get_name(), "cannot write to standard output");
      return kFailureStatus;
    }
    return status;
  } catch (const CLI::ParseError& e) {
    PrintError(app.get_name(), Reason(app, e) + " (see --help)");
    return kUsageStatus;
  }
}

void AddSwitch(CLI::App& command, bool& on) {
  command.add_option_function<std::string>("on|off", [&on](const std::string& text) { on = text == "on"; })
      ->required()
      ->check(CLI::IsMember({"on", "off"}));
}
