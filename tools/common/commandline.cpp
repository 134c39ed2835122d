#include "common/commandline.h"

void SetUpTool(CLI::App& app) {
  app.set_version_flag("--version", app.get_name() + " " RFID_VERSION, "Print the version and exit");
  app.fallthrough();
}

std::optional<int> ParseCommandLine(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << app.get_name() << ": " << e.what() << " (see --help)\n";
    return cUsageStatus;
  }
}

void AddSwitch(CLI::App& command, bool& on) {
  command.add_option_function<std::string>("on|off", [&on](const std::string& text) { on = text == "on"; })
      ->required()
      ->check(CLI::IsMember({"on", "off"}));
}
