#pragma once

#include <google/protobuf/message_lite.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

/// A message to subscribers; shared by all of them.
using Notification = std::shared_ptr<const google::protobuf::MessageLite>;

/// One subscriber's place in a CNotificationHub: its bounded queue and how it ended. Any thread.
class CSubscription {
 public:
  enum class EEnd {
    No,        ///< goes on
    Left,      ///< the subscriber went away
    TooSlow,   ///< its queue ran over: it has missed something
    TooMany,   ///< it was refused: the topic has too many subscribers
    Stopping,  ///< the hub stopped; comes after the notifications that were still waiting
  };
  struct Next {
    Notification message;  ///< empty when there is nothing to be sent now
    EEnd end = EEnd::No;
  };

  /// The next notification, in order.
  Next Take();

  EEnd GetEnd();

  /// Ends it; the first end counts. Does not call the subscriber's wake function.
  void End(EEnd end);

 private:
  friend class CNotificationHub;
  explicit CSubscription(std::function<void()> wake) : mWake(std::move(wake)) {}
  void Push(const Notification& message, std::size_t bound);

  const std::function<void()> mWake;
  std::uint64_t mFirst = 0;  // the first notification sent after it subscribed; guarded by the hub
  std::mutex mMutex;
  std::deque<Notification> mQueue;
  EEnd mEnd = EEnd::No;
};

/// Distributes notifications to subscribers, by topic. Knows no transport.
///
/// Send only appends to a bounded queue and never waits for a subscriber. The thread in Run moves
/// notifications to the subscribers' own queues and wakes them. A new subscriber of a topic gets the last
/// notification sent with `keep`, if any, and then everything sent after it subscribed: nothing is lost,
/// doubled or reordered. A subscriber whose queue runs over is ended.
class CNotificationHub {
 public:
  struct Bounds {
    std::size_t pending = 1024;     ///< notifications of a topic that Run has not distributed yet
    std::size_t queued = 256;       ///< notifications that wait for one subscriber
    std::size_t subscribers = 256;  ///< of one topic, so that one topic's cannot take another's places
  };

  CNotificationHub() : CNotificationHub(Bounds()) {}
  explicit CNotificationHub(const Bounds& bounds) : mBounds(bounds) {}
  CNotificationHub(const CNotificationHub&) = delete;
  CNotificationHub& operator=(const CNotificationHub&) = delete;

  /// A new topic's number.
  std::size_t AddTopic();

  /// Any thread, at any time; after Stop it does nothing.
  void Send(std::size_t topic, Notification message, bool keep);

  /// `wake` is called on the thread of Run or Stop, never from here, when Take has something new. It must not
  /// block, throw or subscribe.
  std::shared_ptr<CSubscription> Subscribe(std::size_t topic, std::function<void()> wake);

  /// Frees the subscriber's place.
  void Unsubscribe(std::size_t topic, const std::shared_ptr<CSubscription>& subscription);

  /// Distributes until Stop.
  void Run();

  /// Distributes what is still pending, then ends every subscription. Once or more.
  void Stop();

 private:
  struct Pending {
    std::uint64_t number = 0;
    Notification message;
  };
  struct Topic {
    std::deque<Pending> pending;
    std::vector<std::shared_ptr<CSubscription>> subscribers;
    Notification last;
  };
  bool HasPending() const;
  void Distribute();

  const Bounds mBounds;
  std::mutex mDistribution;  // held while distributing, so that Run and Stop keep the order
  std::mutex mMutex;         // guards all below
  std::condition_variable mWake;
  std::vector<Topic> mTopics;
  std::uint64_t mNextNumber = 0;
  bool mStopping = false;
};
