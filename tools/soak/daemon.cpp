// rfidd as the soak runs it: polling that finds nothing is looked after every second instead of every 20, so
// that hours of a station's life fit into minutes. Otherwise as src/main.cpp.

#include <chrono>
#include <exception>
#include <memory>

#include "framework/log.h"
#include "framework/rpc.h"
#include "src/commandline.h"
#include "src/hublogger.h"
#include "src/rfid.h"
#include "src/terminatehandler.h"

int main(int argc, char** argv) {
  Log::Init("Rfid", Log::ELogLevel::Info);
  std::set_terminate(HandleTerminate);
  if (!ParseCommandLine(argc, argv)) {
    return 1;
  }
  GrpcBackend::SetLogger(std::make_shared<Rpc::HubLogger>());
  CRfid rfid(GetFilesystemRoot(), std::chrono::seconds(1));
  rfid.Run();
  return 0;
}
