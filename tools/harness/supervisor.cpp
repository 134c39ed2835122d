#include "tools/harness/supervisor.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "framework/interfaces.h"
#include "tools/common/channel.h"
#include "tools/common/texts.h"

Supervisor::Supervisor(const std::string& address)
    : mDaemon(address, kLongestWait, true),
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

std::string Supervisor::Text(const Answer& answer) {
  return answer.IsOk()        ? "Ok"
         : answer.status.ok() ? "Illegal"
                              : fmt::format("status {}: {}", static_cast<int>(answer.status.error_code()),
                                            answer.status.error_message());
}

std::vector<std::string> Supervisor::Notified() const {
  const std::lock_guard lock(mMutex);
  auto notified = mNotified;
  std::erase(notified, "alive");
  return notified;
}

std::vector<std::string> Supervisor::Take() {
  const std::lock_guard lock(mMutex);
  return std::exchange(mNotified, {});
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
