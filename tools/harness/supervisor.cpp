#include "tools/harness/supervisor.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "framework/interfaces.h"
#include "tools/common/channel.h"
#include "tools/common/texts.h"

namespace {

template <typename Call>
std::string Ask(Call call) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + kLongestWait);
  context.set_wait_for_ready(true);
  ipc::MResult result;
  const grpc::Status status = call(context, result);
  if (!status.ok()) {
    return "status " + std::to_string(status.error_code()) + ": " + status.error_message();
  }
  return result.result() == ipc::EResultOk ? "Ok" : "Illegal";
}

}  // namespace

Supervisor::Supervisor(const std::string& address)
    : mControl(ipc::GenericControl::NewStub(OpenChannel(address, kControlService))),
      mRfid(ipc::Rfid::NewStub(OpenChannel(address, kRfidService))),
      mLogConfig(ipc::LogConfig::NewStub(OpenChannel(address, kLogService))),
      mStates(
          OpenChannel(address, kControlService),
          [this](const auto& notification) {
            Add(notification.has_alive() ? "alive" : StateText(notification.state().state()));
          },
          [this](const auto& end) { Add(fmt::format("states ended with status {}", end.error_code())); }, {},
          true),
      mTokens(
          OpenChannel(address, kRfidService),
          [this](const auto& notification) {
            Add(notification.has_token() ? "token " + notification.token().uid() + " " +
                                               ERfidAuthStateToString(notification.token().auth_state())
                                         : "learning " + notification.learning_token().uid());
          },
          [this](const auto&) { Add("tokens ended"); }, [this] { Add("listening"); }, true) {}

std::string Supervisor::Enable() {
  return Ask([this](auto& context, auto& result) { return mControl->Enable(&context, {}, &result); });
}

std::string Supervisor::Disable() {
  return Ask([this](auto& context, auto& result) { return mControl->Disable(&context, {}, &result); });
}

std::string Supervisor::Learning(bool enable) {
  ipc::MEnableLearning request;
  request.set_enable(enable);
  return Ask([&](auto& context, auto& result) { return mRfid->EnableLearning(&context, request, &result); });
}

std::string Supervisor::Inject(const std::string& uid) {
  ipc::MInjectToken request;
  request.set_uid(uid);
  return Ask([&](auto& context, auto& result) { return mRfid->InjectToken(&context, request, &result); });
}

std::string Supervisor::SetLogLevel(ipc::ELogLevel level) {
  ipc::MLogLevel request;
  request.set_level(level);
  return Ask(
      [&](auto& context, auto& result) { return mLogConfig->SetLogLevel(&context, request, &result); });
}

std::vector<std::string> Supervisor::Notified(bool withAlive) const {
  const std::lock_guard lock(mMutex);
  auto notified = mNotified;
  if (!withAlive) {
    std::erase(notified, "alive");
  }
  return notified;
}

std::vector<std::string> Supervisor::Take() {
  const std::lock_guard lock(mMutex);
  return std::exchange(mNotified, {});
}

void Supervisor::Clear() {
  const std::lock_guard lock(mMutex);
  mNotified.clear();
}

bool Supervisor::WaitFor(const std::string& notification, size_t count, std::chrono::seconds limit) const {
  std::unique_lock lock(mMutex);
  return mArrived.wait_for(lock, limit, [&] {
    return static_cast<size_t>(std::count(mNotified.begin(), mNotified.end(), notification)) >= count;
  });
}

void Supervisor::Add(const std::string& what) {
  const std::lock_guard lock(mMutex);
  mNotified.push_back(what);
  mArrived.notify_all();
}
