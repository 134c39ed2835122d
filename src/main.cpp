#include "src/daemon.h"

int main(int argc, char** argv) {
  return RunDaemon(argc, argv);
}
