#include "framework/interfaces.h"
#include "framework/log.h"

namespace {

const char* LevelName(ipc::ELogLevel level) {
  switch (level) {
    case ipc::ELogTrace:
      return "trace";
    case ipc::ELogDebug:
      return "debug";
    case ipc::ELogInfo:
      return "info";
    case ipc::ELogWarning:
      return "warning";
    case ipc::ELogError:
      return "error";
    case ipc::ELogCritical:
      return "critical";
    case ipc::ELogLevel_INT_MIN_SENTINEL_DO_NOT_USE_:
    case ipc::ELogLevel_INT_MAX_SENTINEL_DO_NOT_USE_:
      break;
  }
  return "unknown";
}

class CLogConfigService : public ILogConfig {
 public:
  ipc::MLogLevel GetLogLevel() override {
    ipc::MLogLevel level;
    level.set_level(static_cast<ipc::ELogLevel>(Log::GetLogLevel()));
    return level;
  }

  ipc::MResult SetLogLevel(const ipc::MLogLevel& wanted) override {
    ipc::MResult result;
    // The message keeps numbers that its enumeration does not have.
    if (!ipc::ELogLevel_IsValid(wanted.level())) {
      Log::Warning("Log level {} does not exist, request refused.", static_cast<int>(wanted.level()));
      result.set_result(ipc::EResultIllegal);
      return result;
    }
    const Log::ELogLevel before = Log::GetLogLevel();
    const auto after = static_cast<Log::ELogLevel>(wanted.level());
    if (before != after) {
      // Said while the more verbose of the two levels applies, or going up to "error" would pass in silence.
      if (after < before) {
        Log::SetLogLevel(after);
      }
      Log::Info("Log level changed from {} to {}.", LevelName(static_cast<ipc::ELogLevel>(before)),
                LevelName(wanted.level()));
      Log::SetLogLevel(after);
    }
    result.set_result(ipc::EResultOk);
    return result;
  }
};

}  // namespace

std::shared_ptr<ILogConfig> Log::CreateLogConfigService() {
  return std::make_shared<CLogConfigService>();
}
