#include "src/commandline.h"

#include <getopt.h>

#include <iostream>

#include "framework/log.h"

namespace {

std::string filesystemRoot = "/";
Log::ELogLevel logLevel = Log::ELogLevel::Info;

void PrintUsage(const char* program) {
  std::cout << "usage: " << program << " [OPTION]\n"
            << "  -v, --verbose    increase verbosity\n"
            << "  -q, --quiet      disable logging to console\n"
            << "  -r, --root=PATH  set the filesystem root directory\n"
            << "                   defaults to '" << filesystemRoot << "'\n"
            << "  -h, --help       show this help message and exit\n"
            << std::endl;
}

}  // namespace

const std::string& GetFilesystemRoot() {
  return filesystemRoot;
}

bool ParseCommandLine(int argc, char** argv) {
  static const option options[] = {
      {"verbose", no_argument, nullptr, 'v'},
      {"quiet", no_argument, nullptr, 'q'},
      {"root", required_argument, nullptr, 'r'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  for (;;) {
    switch (getopt_long(argc, argv, "hqsvr:", options, nullptr)) {
      case -1:
        return true;
      case 'v':
        logLevel = Log::GetLowerLogLevel(logLevel);
        Log::SetLogLevel(logLevel);
        break;
      case 'q':
        Log::EnableConsoleLogging(false);
        break;
      case 'r':
        filesystemRoot = optarg;
        break;
      default:
        PrintUsage(argv[0]);
        return false;
    }
  }
}
