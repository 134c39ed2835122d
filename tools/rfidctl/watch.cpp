#include "rfidctl/watch.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <system_error>
#include <variant>

#include "common/channel.h"
#include "common/output.h"
#include "common/statetext.h"
#include "common/stopsignals.h"
#include "common/subscriber.h"
#include "framework/interfaces.h"
#include "ipc/generic_control.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"

namespace {

using Clock = std::chrono::steady_clock;

/// How long a daemon may take to confirm a subscription before it is taken for one that confirms with the
/// first notification only.
constexpr auto kConfirmationTime = std::chrono::seconds(3);

/// Something to show.
struct Event {
  std::string kind;
  std::string text;
  const char* colour;
  Json::Value details;
};

/// A subscription ended.
struct Ended {
  std::string service;
  grpc::Status status;
};

using Item = std::variant<Event, Ended>;

/// What the subscribers hand to the main thread. Bounded: when nothing is printed for long (a stopped
/// terminal) the subscribers wait, and the daemon's own bound applies.
class Queue {
 public:
  Queue() : mDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (mDescriptor < 0) {
      throw std::system_error(errno, std::generic_category(), "cannot wait for notifications");
    }
  }
  ~Queue() { close(mDescriptor); }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  int Descriptor() const { return mDescriptor; }  ///< readable while there may be items

  void Push(Item item) {
    std::unique_lock lock(mMutex);
    mSpace.wait(lock, [this] { return mItems.size() < kMost || mClosed; });
    mItems.push_back(std::move(item));
    eventfd_write(mDescriptor, 1);
  }

  std::deque<Item> TakeAll() {
    const std::lock_guard lock(mMutex);
    eventfd_t ignored = 0;
    eventfd_read(mDescriptor, &ignored);
    mSpace.notify_all();
    return std::exchange(mItems, {});
  }

  /// Nobody takes items any more.
  void Close() {
    const std::lock_guard lock(mMutex);
    mClosed = true;
    mSpace.notify_all();
  }

 private:
  static constexpr std::size_t kMost = 1000;
  const int mDescriptor;
  std::mutex mMutex;
  std::condition_variable mSpace;
  std::deque<Item> mItems;
  bool mClosed = false;
};

constexpr const char* kGreen = "\x1b[32m";
constexpr const char* kRed = "\x1b[31m";
constexpr const char* kYellow = "\x1b[33m";
constexpr const char* kGrey = "\x1b[90m";
constexpr const char* kPlain = "\x1b[0m";

const char* ColourOf(ipc::EState state) {
  if (state == ipc::EStateEnabled) {
    return kGreen;
  }
  return state == ipc::EStateError || state == ipc::EStateFatalError ? kRed : kYellow;
}

Item ToItem(const ipc::MGenericControlNotification& notification) {
  switch (notification.notification_case()) {
    case ipc::MGenericControlNotification::kState: {
      const ipc::EState state = notification.state().state();
      Event event{"state", StateText(state), ColourOf(state), {}};
      event.details["state"] = event.text;
      return event;
    }
    case ipc::MGenericControlNotification::kAlive:
      return Event{"alive", "", kGrey, {}};
    case ipc::MGenericControlNotification::NOTIFICATION_NOT_SET:
      break;
  }
  return Event{"unknown", "a notification that this program does not know", kRed, {}};
}

Item ToItem(const ipc::MRfidNotification& notification) {
  switch (notification.notification_case()) {
    case ipc::MRfidNotification::kToken: {
      const ipc::MRfidToken& token = notification.token();
      const bool rejected =
          token.auth_state() == ipc::ERfidUidNotInList || token.auth_state() == ipc::ERfidUidInvalid;
      const std::string authState = ERfidAuthStateToString(token.auth_state());
      Event event{"token", token.uid() + " " + authState, rejected ? kRed : kGreen, {}};
      event.details["uid"] = token.uid();
      event.details["authState"] = authState;
      return event;
    }
    case ipc::MRfidNotification::kLearningToken: {
      Event event{"learning-token", notification.learning_token().uid(), kYellow, {}};
      event.details["uid"] = event.text;
      return event;
    }
    case ipc::MRfidNotification::NOTIFICATION_NOT_SET:
      break;
  }
  return Event{"unknown", "a notification that this program does not know", kRed, {}};
}

class Watcher {
 public:
  Watcher(const Daemon& daemon, const WatchOptions& options) : mDaemon(daemon), mOptions(options) {}

  EExit Run() {
    const StopSignals signals;
    const auto end = mOptions.timeout
                         ? Clock::now() + std::chrono::ceil<std::chrono::milliseconds>(*mOptions.timeout)
                         : Clock::time_point::max();
    Queue queue;
    const auto push = [&queue](const auto& notification) { queue.Push(ToItem(notification)); };
    const auto ended = [&queue](const char* service) {
      return [&queue, service](const grpc::Status& status) { queue.Push(Ended{service, status}); };
    };
    // Cards first: whoever reads a state here may act at once, and the outcome has to be seen.
    Subscriber<ipc::Rfid, ipc::MRfidNotification> cards(OpenChannel(mDaemon.address, kRfidService), push,
                                                        ended(kRfidService));
    cards.WaitUntilSubscribed(kConfirmationTime);
    Subscriber<ipc::GenericControl, ipc::MGenericControlNotification> states(
        OpenChannel(mDaemon.address, kControlService), push, ended(kControlService));
    struct Closer {
      Queue& queue;
      ~Closer() { queue.Close(); }
    } const closer{queue};

    while (mReading && !IsComplete()) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
      if (mOptions.timeout && left.count() <= 0) {
        if (!mReached) {
          throw Unreachable("the daemon at " + mDaemon.address + " does not answer");
        }
        break;
      }
      pollfd waiting[] = {
          {queue.Descriptor(), POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
      const int milliseconds =
          mOptions.timeout ? static_cast<int>(std::min<std::chrono::milliseconds::rep>(left.count(), 60'000))
                           : -1;
      if (poll(waiting, 3, milliseconds) > 0) {
        mReading = waiting[2].revents == 0;
        if (!mReading || waiting[1].revents != 0) {
          break;
        }
        for (const Item& item : queue.TakeAll()) {
          std::visit([this](const auto& content) { Handle(content); }, item);
        }
      }
    }
    if (!mReading || mOptions.count == 0 || IsComplete()) {
      return EExit::Ok;
    }
    PrintError(kTool, fmt::format("ended after {} of {} notifications", mShown, mOptions.count));
    return EExit::Incomplete;
  }

 private:
  bool IsComplete() const { return mOptions.count != 0 && mShown >= mOptions.count; }

  void Handle(const Event& event) {
    if (mLost && (event.kind == "state" || event.kind == "alive")) {
      PrintError(kTool, "the daemon is back");
      mLost = false;
    }
    mReached = true;
    if (IsComplete() || !mReading || (!mOptions.kinds.empty() && mOptions.kinds.count(event.kind) == 0)) {
      return;
    }
    mReading = mOutput.Write(mDaemon.json ? ForPrograms(event) : ForPeople(event));
    ++mShown;
  }

  void Handle(const Ended& ended) {
    const grpc::Status& status = ended.status;
    if (!mReached) {
      throw Unreachable("cannot reach the daemon at " + mDaemon.address + ": " + ReasonOf(status));
    }
    const grpc::StatusCode code = status.error_code();
    if (code == grpc::StatusCode::RESOURCE_EXHAUSTED) {
      PrintError(kTool, "notifications of " + ended.service + " were missed: " + ReasonOf(status));
    } else if (code == grpc::StatusCode::UNIMPLEMENTED || code == grpc::StatusCode::NOT_FOUND ||
               code == grpc::StatusCode::PERMISSION_DENIED) {
      throw Unreachable(ended.service + " at " + mDaemon.address + ": " + ReasonOf(status));
    } else if (!mLost) {  // the connection ended, one way or another: said once for both services
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
    const std::string text = Printable(event.text);
    const std::string time = TimeForPeople();
    if (text.empty()) {
      return mOutput.HasColour() ? fmt::format("{}{} {}{}", kGrey, time, event.kind, kPlain)
                                 : time + " " + event.kind;
    }
    return mOutput.HasColour() ? fmt::format("{}{}{} {:<14} {}{}{}", kGrey, time, kPlain, event.kind,
                                             event.colour, text, kPlain)
                               : fmt::format("{} {:<14} {}", time, event.kind, text);
  }

  const Daemon& mDaemon;
  const WatchOptions& mOptions;
  LineOutput mOutput;
  unsigned mShown = 0;
  bool mReading = true;   ///< somebody reads the output
  bool mReached = false;  ///< the daemon was there
  bool mLost = false;     ///< and is not now
};

}  // namespace

EExit Watch(const Daemon& daemon, const WatchOptions& options) {
  return Watcher(daemon, options).Run();
}
