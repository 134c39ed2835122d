// The reader on the kernel's digital stack, and its tags.
#include "tools/kernelbed/digitalreader.h"
#include "tools/kernelbed/program.h"

int main(int argc, char** argv) {
  using namespace kernelbed;
  return RunReaderProgram(argc, argv, "digi-tags", DigitalReader::kWords,
                          [](FILE* log) { return std::make_unique<DigitalReader>(KERNELBED_MODULE, log); });
}
