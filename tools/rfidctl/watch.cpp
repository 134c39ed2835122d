#include "tools/rfidctl/commands.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <mutex>
#include <system_error>

#include "framework/interfaces.h"
#include "ipc/generic_control.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"
#include "tools/common/channel.h"
#include "tools/common/output.h"
#include "tools/common/stopsignals.h"
#include "tools/common/subscriber.h"
#include "tools/common/texts.h"

namespace {

using Clock = std::chrono::steady_clock;

/// Some daemons confirm a subscription only with the first notification. After this time the daemon counts as
/// one of them.
constexpr auto kConfirmationTime = std::chrono::seconds(3);

constexpr const char* kGreen = "\x1b[32m";
constexpr const char* kRed = "\x1b[31m";
constexpr const char* kYellow = "\x1b[33m";
constexpr const char* kGrey = "\x1b[90m";
constexpr const char* kPlain = "\x1b[0m";

/// A notification, as it is shown.
struct Event {
  std::string kind;
  std::string text;
  const char* colour;
  Json::Value details;
};

const Event kUnknown{"unknown", "a notification that this program does not know", kRed, {}};

Event ToEvent(const ipc::MGenericControlNotification& notification) {
  if (notification.has_alive()) {
    return {"alive", "", kGrey, {}};
  }
  if (!notification.has_state()) {
    return kUnknown;
  }
  const ipc::EState state = notification.state().state();
  const bool isError = state == ipc::EStateError || state == ipc::EStateFatalError;
  Event event{"state", StateText(state), state == ipc::EStateEnabled ? kGreen : isError ? kRed : kYellow, {}};
  event.details["state"] = event.text;
  return event;
}

Event ToEvent(const ipc::MRfidNotification& notification) {
  if (notification.has_learning_token()) {
    Event event{"learning-token", notification.learning_token().uid(), kYellow, {}};
    event.details["uid"] = event.text;
    return event;
  }
  if (!notification.has_token()) {
    return kUnknown;
  }
  const ipc::MRfidToken& token = notification.token();
  const bool isRejected =
      token.auth_state() == ipc::ERfidUidNotInList || token.auth_state() == ipc::ERfidUidInvalid;
  const std::string authState = ERfidAuthStateToString(token.auth_state());
  Event event{"token", token.uid() + " " + authState, isRejected ? kRed : kGreen, {}};
  event.details["uid"] = token.uid();
  event.details["authState"] = authState;
  return event;
}

/// Prints on the subscribers' threads: when nobody reads the output for long (a stopped terminal), the
/// streams wait and the daemon's own limit for slow subscribers applies.
class Watcher {
 public:
  Watcher(const Daemon& daemon, const WatchOptions& options)
      : mDaemon(daemon), mOptions(options), mDone(eventfd(0, EFD_CLOEXEC)) {
    if (mDone < 0) {
      throw std::system_error(errno, std::generic_category(), "cannot wait for notifications");
    }
  }
  ~Watcher() { close(mDone); }
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  EExit Run() {
    const StopSignals signals;
    Listen(signals);
    if (mError) {
      std::rethrow_exception(mError);
    }
    if (!mReading || mOptions.count == 0 || IsComplete()) {
      return EExit::Ok;
    }
    PrintError(kTool, fmt::format("ended after {} of {} notifications", mShown, mOptions.count));
    return EExit::Incomplete;
  }

 private:
  /// Runs until the count, the timeout, a signal or an error, or until nobody reads the output any more.
  void Listen(const StopSignals& signals) {
    const auto end = Clock::now() + std::chrono::ceil<std::chrono::milliseconds>(
                                        mOptions.timeout.value_or(std::chrono::seconds(0)));
    const auto show = [this](const auto& notification) { Guarded([&] { Show(ToEvent(notification)); }); };
    const auto ended = [this](const char* service) {
      return [this, service](const grpc::Status& status) { Guarded([&] { OnEnd(service, status); }); };
    };
    // Subscribe to cards first: a reader of this output may act on a state at once, and must not miss the
    // outcome.
    Subscriber<ipc::Rfid, ipc::MRfidNotification> cards(OpenChannel(mDaemon.address, kRfidService), show,
                                                        ended(kRfidService));
    cards.WaitUntilSubscribed(kConfirmationTime);
    const Subscriber<ipc::GenericControl, ipc::MGenericControlNotification> states(
        OpenChannel(mDaemon.address, kControlService), show, ended(kControlService));
    pollfd waiting[] = {{mDone, POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    int ready = 0;
    while (ready <= 0 && (!mOptions.timeout || Clock::now() < end)) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
      const auto time = mOptions.timeout ? std::clamp<decltype(left)>(left, 0, 60'000) : -1;
      ready = poll(waiting, 3, static_cast<int>(time));
    }
    const std::lock_guard lock(mMutex);
    mIsOver = true;  // errors of the ending subscriptions are not shown
    mReading = mReading && waiting[2].revents == 0;
    if (ready <= 0 && !mReached) {
      throw Unreachable("the daemon at " + mDaemon.address + " does not answer");
    }
  }

  bool IsComplete() const { return mOptions.count != 0 && mShown >= mOptions.count; }

  /// Calls the function, one call at a time, unless the watch has ended. An exception ends the watch.
  template <typename Action>
  void Guarded(Action action) {
    const std::lock_guard lock(mMutex);
    if (mIsOver) {
      return;
    }
    try {
      action();
    } catch (const std::exception&) {
      mError = std::current_exception();
    }
    if (mError || !mReading || IsComplete()) {
      mIsOver = true;
      eventfd_write(mDone, 1);
    }
  }

  void Show(const Event& event) {
    if (mLost && (event.kind == "state" || event.kind == "alive")) {
      PrintError(kTool, "the daemon is back");
      mLost = false;
    }
    mReached = true;
    if (mOptions.kinds.empty() || mOptions.kinds.contains(event.kind)) {
      mReading = mOutput.Write(mDaemon.json ? ForPrograms(event) : ForPeople(event));
      ++mShown;
    }
  }

  void OnEnd(const std::string& service, const grpc::Status& status) {
    if (!mReached) {
      throw Unreachable("cannot reach the daemon at " + mDaemon.address + ": " + ReasonOf(status));
    }
    const grpc::StatusCode code = status.error_code();
    if (code == grpc::StatusCode::RESOURCE_EXHAUSTED) {
      PrintError(kTool, "notifications of " + service + " were missed: " + ReasonOf(status));
    } else if (code == grpc::StatusCode::UNIMPLEMENTED || code == grpc::StatusCode::NOT_FOUND ||
               code == grpc::StatusCode::PERMISSION_DENIED) {
      throw Unreachable(service + " at " + mDaemon.address + ": " + ReasonOf(status));
    } else if (!mLost) {  // said once for both services
      PrintError(kTool,
                 "the daemon at " + mDaemon.address + " is gone (" + ReasonOf(status) + "), waiting for it");
      mLost = true;
    }
  }

  static std::string ForPrograms(const Event& event) {
    Json::Value line = event.details;
    line["time"] = TimeForPrograms();
    line["kind"] = event.kind;
    return ToJsonLine(line);
  }

  std::string ForPeople(const Event& event) const {
    const auto [grey, colour, plain] =
        mOutput.HasColour() ? std::array{kGrey, event.colour, kPlain} : std::array{"", "", ""};
    const std::string text = Printable(event.text);
    return text.empty() ? fmt::format("{}{} {}{}", grey, TimeForPeople(), event.kind, plain)
                        : fmt::format("{}{}{} {:<14} {}{}{}", grey, TimeForPeople(), plain, event.kind,
                                      colour, text, plain);
  }

  const Daemon& mDaemon;
  const WatchOptions& mOptions;
  const int mDone;  ///< readable when the end has come
  std::mutex mMutex;
  LineOutput mOutput;
  std::exception_ptr mError;
  unsigned mShown = 0;
  bool mReading = true;   ///< somebody reads the output
  bool mReached = false;  ///< the daemon was there
  bool mLost = false;     ///< and is not now
  bool mIsOver = false;
};

}  // namespace

EExit Watch(const Daemon& daemon, const WatchOptions& options) {
  return Watcher(daemon, options).Run();
}
