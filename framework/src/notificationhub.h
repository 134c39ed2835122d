#pragma once

#include <google/protobuf/message_lite.h>

#include <cstddef>
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
    Stopping,  ///< the hub stopped; comes after the queued notifications
  };
  struct Next {
    Notification message;  ///< empty when there is nothing to send now
    EEnd end = EEnd::No;
  };

  /// The next notification, in order.
  Next Take();

  EEnd GetEnd();

  /// Ends the subscription; only the first call counts. Does not call the subscriber's wake function.
  void End(EEnd end);

 private:
  friend class CNotificationHub;
  explicit CSubscription(std::function<void()> wake) : mWake(std::move(wake)) {}
  void Push(const Notification& message, std::size_t bound);

  const std::function<void()> mWake;
  std::mutex mMutex;
  std::deque<Notification> mQueue;
  EEnd mEnd = EEnd::No;
};

/// Distributes notifications to subscribers, by topic. Knows no transport.
///
/// Send appends to the subscribers' bounded queues and wakes them; it never waits for one. A new subscriber
/// of a topic gets the last notification sent with `keep`, if any, and then everything sent after it
/// subscribed: nothing is lost, doubled or reordered. A subscriber whose queue is full is disconnected.
class CNotificationHub {
 public:
  struct Bounds {
    std::size_t queued = 256;       ///< notifications in one subscriber's queue
    std::size_t subscribers = 256;  ///< of one topic; each topic has its own places
  };

  CNotificationHub() : CNotificationHub(Bounds()) {}
  explicit CNotificationHub(const Bounds& bounds) : mBounds(bounds) {}
  CNotificationHub(const CNotificationHub&) = delete;
  CNotificationHub& operator=(const CNotificationHub&) = delete;

  /// A new topic's number.
  std::size_t AddTopic();

  /// Any thread, at any time; after Stop it does nothing.
  void Send(std::size_t topic, const Notification& message, bool keep);

  /// `wake` is called on the thread of Send or Stop, never from here, when Take has something new. It must
  /// not block, throw or subscribe.
  std::shared_ptr<CSubscription> Subscribe(std::size_t topic, std::function<void()> wake);

  /// Frees the subscriber's place.
  void Unsubscribe(std::size_t topic, const std::shared_ptr<CSubscription>& subscription);

  /// Ends every subscription. Later calls do nothing.
  void Stop();

 private:
  using Subscriptions = std::vector<std::shared_ptr<CSubscription>>;
  struct Topic {
    Subscriptions subscribers;
    Notification last;
  };

  const Bounds mBounds;
  std::mutex mMutex;  // guards all below
  std::vector<Topic> mTopics;
  bool mStopping = false;
};
