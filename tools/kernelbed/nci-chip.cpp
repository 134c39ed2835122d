// An NFC chip on the kernel's NCI stack, and its tags.
#include "tools/kernelbed/ncichip.h"
#include "tools/kernelbed/program.h"

int main(int argc, char** argv) {
  using namespace kernelbed;
  return RunReaderProgram(argc, argv, "nci-chip", NciChip::kWords,
                          [](FILE* log) { return std::make_unique<NciChip>(log); });
}
