#include "src/daemon.h"

#include <exception>
#include <memory>

#include "framework/log.h"
#include "framework/rpc.h"
#include "src/commandline.h"
#include "src/hublogger.h"
#include "src/rfid.h"
#include "src/terminatehandler.h"

// Nothing is caught here: whatever escapes ends in the terminate handler, with its reason in the log.
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
