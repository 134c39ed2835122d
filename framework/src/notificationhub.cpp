#include "notificationhub.h"

#include <utility>

CSubscription::Next CSubscription::Take() {
  const std::lock_guard<std::mutex> lock(mMutex);
  Next next;
  if (mQueue.empty()) {
    next.end = mEnd;
  } else {
    next.message = std::move(mQueue.front());
    mQueue.pop_front();
  }
  return next;
}

CSubscription::EEnd CSubscription::GetEnd() {
  const std::lock_guard<std::mutex> lock(mMutex);
  return mEnd;
}

void CSubscription::End(EEnd end) {
  const std::lock_guard<std::mutex> lock(mMutex);
  if (mEnd == EEnd::No) {
    mEnd = end;
    if (end != EEnd::Stopping) {
      mQueue.clear();
    }
  }
}

void CSubscription::Push(const Notification& message, std::size_t bound) {
  const std::lock_guard<std::mutex> lock(mMutex);
  if (mEnd == EEnd::No && mQueue.size() < bound) {
    mQueue.push_back(message);
  } else if (mEnd == EEnd::No) {
    mEnd = EEnd::TooSlow;
    mQueue.clear();
  }
}

std::size_t CNotificationHub::AddTopic() {
  const std::lock_guard<std::mutex> lock(mMutex);
  mTopics.emplace_back();
  return mTopics.size() - 1;
}

void CNotificationHub::Send(std::size_t topic, const Notification& message, bool keep) {
  std::unique_lock<std::mutex> lock(mMutex);
  if (mStopping) {
    return;
  }
  Topic& to = mTopics[topic];
  if (keep) {
    to.last = message;
  }
  for (const auto& subscriber : to.subscribers) {
    subscriber->Push(message, mBounds.queued);
    mHasNews = to.hasNews = true;
  }
  const bool hasNews = to.hasNews;
  lock.unlock();  // the thread that wakes up needs it
  if (hasNews) {
    mWake.notify_all();
  }
}

std::shared_ptr<CSubscription> CNotificationHub::Subscribe(std::size_t topic, std::function<void()> wake) {
  std::shared_ptr<CSubscription> subscription(new CSubscription(std::move(wake)));
  const std::lock_guard<std::mutex> lock(mMutex);
  Topic& to = mTopics[topic];
  if (mStopping) {
    subscription->End(CSubscription::EEnd::Stopping);
  } else if (to.subscribers.size() >= mBounds.subscribers) {
    subscription->End(CSubscription::EEnd::TooMany);
  } else {
    if (to.last) {
      subscription->Push(to.last, mBounds.queued);
    }
    to.subscribers.push_back(subscription);
  }
  return subscription;
}

void CNotificationHub::Unsubscribe(std::size_t topic, const std::shared_ptr<CSubscription>& subscription) {
  const std::lock_guard<std::mutex> lock(mMutex);
  std::erase(mTopics[topic].subscribers, subscription);
}

void CNotificationHub::Run() {
  std::unique_lock<std::mutex> lock(mMutex);
  for (;;) {
    mWake.wait(lock, [this] { return mStopping || mHasNews; });
    if (mStopping) {
      return;
    }
    const Subscriptions receivers = TakeReceivers();
    lock.unlock();
    for (const auto& receiver : receivers) {
      receiver->mWake();
    }
    lock.lock();
  }
}

/// Returns the subscribers of topics with news, and marks them as told.
CNotificationHub::Subscriptions CNotificationHub::TakeReceivers() {
  Subscriptions receivers;
  for (Topic& topic : mTopics) {
    if (std::exchange(topic.hasNews, false)) {
      receivers.insert(receivers.end(), topic.subscribers.begin(), topic.subscribers.end());
    }
  }
  mHasNews = false;
  return receivers;
}

void CNotificationHub::Stop() {
  Subscriptions all;
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mStopping = true;
    for (const Topic& topic : mTopics) {
      all.insert(all.end(), topic.subscribers.begin(), topic.subscribers.end());
    }
  }
  mWake.notify_all();
  for (const auto& subscription : all) {
    subscription->End(CSubscription::EEnd::Stopping);
    subscription->mWake();
  }
}
