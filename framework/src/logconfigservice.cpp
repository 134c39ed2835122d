#include <array>
#include <cstddef>

#include "framework/interfaces.h"
#include "framework/log.h"

namespace {

/// The levels have the same numbers in Log and in the messages.
const char* LevelName(Log::ELogLevel level) {
  static constexpr std::array<const char*, 6> kNames{"trace",   "debug", "info",
                                                     "warning", "error", "critical"};
  static_assert(kNames.size() == ipc::ELogLevel_ARRAYSIZE);
  return kNames.at(static_cast<std::size_t>(level));
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
    // proto3 keeps unknown enum values, so check the range.
    if (!ipc::ELogLevel_IsValid(wanted.level())) {
      Log::Warning("Log level {} does not exist, request refused.", static_cast<int>(wanted.level()));
      result.set_result(ipc::EResultIllegal);
      return result;
    }
    const Log::ELogLevel before = Log::GetLogLevel();
    const auto after = static_cast<Log::ELogLevel>(wanted.level());
    if (before != after) {
      // Logged at the more verbose of the two levels: otherwise a change to "error" would hide the line.
      if (after < before) {
        Log::SetLogLevel(after);
      }
      Log::Info("Log level changed from {} to {}.", LevelName(before), LevelName(after));
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
