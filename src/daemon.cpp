#include "src/daemon.h"

#include <exception>
#include <memory>

#include "framework/log.h"
#include "framework/rpc.h"
#include "src/commandline.h"
#include "src/hublogger.h"
#include "src/rfid.h"
#include "src/terminatehandler.h"

// Do not catch anything here: the terminate handler logs what ends the daemon.
int RunDaemon(int argc, char** argv, std::chrono::milliseconds pollWatchPeriod) {
  Log::Init("Rfid", Log::ELogLevel::Info);
  std::set_terminate(HandleTerminate);
  if (!ParseCommandLine(argc, argv)) {
    return 1;
  }
  GrpcBackend::SetLogger(std::make_shared<Rpc::HubLogger>());
  CRfid rfid(GetFilesystemRoot(), pollWatchPeriod);
  rfid.Run();
  return 0;
}
