// rfidd as the soak runs it: it checks its polling every second instead of every 20, so that hours of a
// station's life fit into minutes.

#include "src/daemon.h"

int main(int argc, char** argv) {
  return RunDaemon(argc, argv, std::chrono::seconds(1));
}
