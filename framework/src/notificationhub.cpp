#include "notificationhub.h"

#include <algorithm>
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
  if (mEnd != EEnd::No) {
    return;
  }
  if (mQueue.size() < bound) {
    mQueue.push_back(message);
  } else {
    mEnd = EEnd::TooSlow;
    mQueue.clear();
  }
}

std::size_t CNotificationHub::AddTopic() {
  const std::lock_guard<std::mutex> lock(mMutex);
  mTopics.emplace_back();
  return mTopics.size() - 1;
}

void CNotificationHub::Send(std::size_t topic, Notification message, bool keep) {
  const std::lock_guard<std::mutex> lock(mMutex);
  if (mStopping) {
    return;
  }
  Topic& to = mTopics[topic];
  if (keep) {
    to.last = message;
  }
  const std::uint64_t number = mNextNumber++;
  if (to.subscribers.empty()) {
    return;  // later subscribers get `last` only
  }
  if (to.pending.size() >= mBounds.pending) {
    // The queue is full because nothing drains it. Drop the subscribers that still need the oldest
    // notification; the next drain tells them.
    for (const auto& subscriber : to.subscribers) {
      if (subscriber->mFirst <= to.pending.front().number) {
        subscriber->End(CSubscription::EEnd::TooSlow);
      }
    }
    to.pending.pop_front();
  }
  to.pending.push_back({number, std::move(message)});
  mWake.notify_all();
}

std::shared_ptr<CSubscription> CNotificationHub::Subscribe(std::size_t topic, std::function<void()> wake) {
  std::shared_ptr<CSubscription> subscription(new CSubscription(std::move(wake)));
  const std::lock_guard<std::mutex> lock(mMutex);
  if (mStopping) {
    subscription->End(CSubscription::EEnd::Stopping);
  } else if (mTopics[topic].subscribers.size() >= mBounds.subscribers) {
    subscription->End(CSubscription::EEnd::TooMany);
  } else {
    Topic& to = mTopics[topic];
    subscription->mFirst = mNextNumber;
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
  while (!mStopping) {
    mWake.wait(lock, [this] { return mStopping || HasPending(); });
    lock.unlock();
    Distribute();
    lock.lock();
  }
}

bool CNotificationHub::HasPending() const {
  return std::any_of(mTopics.begin(), mTopics.end(),
                     [](const Topic& topic) { return !topic.pending.empty(); });
}

void CNotificationHub::Distribute() {
  const std::lock_guard<std::mutex> distribution(mDistribution);
  std::unique_lock<std::mutex> lock(mMutex);
  for (std::size_t topic = 0; topic < mTopics.size(); ++topic) {
    while (!mTopics[topic].pending.empty()) {
      const Pending pending = std::move(mTopics[topic].pending.front());
      mTopics[topic].pending.pop_front();
      std::vector<std::shared_ptr<CSubscription>> receivers;
      for (const auto& subscriber : mTopics[topic].subscribers) {
        if (subscriber->mFirst <= pending.number) {
          receivers.push_back(subscriber);
        }
      }
      lock.unlock();
      for (const auto& receiver : receivers) {
        receiver->Push(pending.message, mBounds.queued);
        receiver->mWake();
      }
      lock.lock();
    }
  }
}

void CNotificationHub::Stop() {
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mStopping = true;
  }
  mWake.notify_all();
  Distribute();
  std::vector<std::shared_ptr<CSubscription>> all;
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    for (const Topic& topic : mTopics) {
      all.insert(all.end(), topic.subscribers.begin(), topic.subscribers.end());
    }
  }
  for (const auto& subscription : all) {
    subscription->End(CSubscription::EEnd::Stopping);
    subscription->mWake();
  }
}
