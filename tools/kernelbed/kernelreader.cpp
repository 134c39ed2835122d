// A reader for the guest's kernel, driven by lines on standard input.

#include <CLI/CLI.hpp>
#include <iostream>

#include "tools/common/commandline.h"
#include "tools/kernelbed/digitalreader.h"
#include "tools/kernelbed/ncichip.h"

using namespace kernelbed;

static int Run(int argc, char** argv) {
  CLI::App app(
      "A reader for the real kernel's NFC subsystem, with its tags, in the guest of tools/kernelbed.\n"
      "It is plugged in at the start, takes one command per line of standard input and is unplugged at its "
      "end.",
      "kernel-reader");
  SetUpTool(app);
  app.footer(std::string(kReaderWords) + "\nWithout --nci, " + DigitalReader::kWords + "\nWith --nci, " +
             NciChip::kWords);
  bool isNci = false;
  app.add_flag("--nci", isNci, "a chip on the NCI stack instead of a reader on the digital stack");
  if (const auto ended = ParseCommandLine(app, argc, argv)) {
    return *ended;
  }
  std::unique_ptr<Reader> reader;
  if (isNci) {
    reader = std::make_unique<NciChip>(nullptr);
  } else {
    reader = std::make_unique<DigitalReader>(KERNELBED_MODULE, nullptr);
  }
  reader->Command("plug");
  for (std::string line; std::getline(std::cin, line);) {
    try {
      std::cout << "ok " << reader->Command(line) << std::endl;
    } catch (const std::exception& e) {
      std::cout << "error: " << e.what() << std::endl;
    }
  }
  return 0;
}

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kernel-reader: %s\n", e.what());
    return 1;
  }
}
