// rfid-diagram: prints the state machine's diagram, made from its transition table.

#include <cstdio>
#include <string>
#include <string_view>

#include "diagram/diagram.h"

int main(int argc, char** argv) {
  const std::string_view form = argc == 2 ? argv[1] : "";
  if (form != "dot" && form != "mermaid" && form != "javascript") {
    std::fputs("usage: rfid-diagram dot|mermaid|javascript\n", stderr);
    return 2;
  }
  const auto& machine = CRfidHsm::Definition();
  const std::string text = form == "dot"       ? ToDot(machine)
                           : form == "mermaid" ? ToMermaid(machine)
                                               : ToJavaScript(machine);
  if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
    std::perror("rfid-diagram: cannot write");
    return 1;
  }
  return 0;
}
