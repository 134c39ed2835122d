#include "notificationhub.h"

#include <gtest/gtest.h>

#include <vector>

#include "ipc/rfid.pb.h"
#include "jitter.h"
#include "rpctesting.h"

namespace {

using namespace rpctesting;

Notification Numbered(int number) {
  auto message = std::make_shared<ipc::MRfidNotification>();
  message->mutable_token()->set_uid(std::to_string(number));
  return message;
}

int NumberOf(const Notification& message) {
  return std::stoi(static_cast<const ipc::MRfidNotification&>(*message).token().uid());
}

/// A subscriber that reads on the thread of its caller.
class Reader {
 public:
  Reader(CNotificationHub& hub, std::size_t topic)
      : mSubscription(hub.Subscribe(topic, [wakes = mWakes] { wakes->Put(0); })) {}

  /// Reads numbers until the end, or at most `count`.
  std::vector<int> Read(std::size_t count = SIZE_MAX) {
    std::vector<int> numbers;
    while (numbers.size() < count) {
      const CSubscription::Next next = mSubscription->Take();
      if (next.message) {
        numbers.push_back(NumberOf(next.message));
      } else if (mEnd = next.end; mEnd != CSubscription::EEnd::No || !mWakes->Take()) {
        break;
      }
    }
    return numbers;
  }
  CSubscription::EEnd End() const { return mEnd; }

 private:
  const std::shared_ptr<Mailbox<int>> mWakes =
      std::make_shared<Mailbox<int>>();  // the hub may outlive the reader
  CSubscription::EEnd mEnd = CSubscription::EEnd::No;

 public:
  const std::shared_ptr<CSubscription> mSubscription;
};

class NotificationHubTest : public testing::Test {
 protected:
  CNotificationHub mHub{{4, 3}};
  const std::size_t mTopic = mHub.AddTopic();
  const std::size_t mOther = mHub.AddTopic();
};

TEST_F(NotificationHubTest, NotificationsSentBeforeStopArrive) {
  Reader reader(mHub, mTopic);
  mHub.Send(mTopic, Numbered(1), false);
  mHub.Send(mTopic, Numbered(2), false);
  mHub.Stop();
  mHub.Send(mTopic, Numbered(3), false);
  EXPECT_EQ(reader.Read(), (std::vector<int>{1, 2}));
  EXPECT_EQ(reader.End(), CSubscription::EEnd::Stopping);
  Reader late(mHub, mTopic);
  late.Read();
  EXPECT_EQ(late.End(), CSubscription::EEnd::Stopping);
}

TEST_F(NotificationHubTest, PlacesAreLimitedForEachTopicAndFreedByLeaving) {
  std::vector<std::unique_ptr<Reader>> readers;
  for (int i = 0; i < 3; ++i) {
    readers.push_back(std::make_unique<Reader>(mHub, mTopic));
  }
  Reader refused(mHub, mTopic);
  refused.Read();
  EXPECT_EQ(refused.End(), CSubscription::EEnd::TooMany);
  Reader other(mHub, mOther);
  for (int i = 0; i < 2; ++i) {
    mHub.Unsubscribe(mTopic, readers[0]->mSubscription);
  }
  Reader next(mHub, mTopic);
  mHub.Send(mTopic, Numbered(1), false);
  mHub.Send(mOther, Numbered(2), false);
  EXPECT_EQ(next.Read(1), std::vector<int>{1});
  EXPECT_EQ(other.Read(1), std::vector<int>{2});
}

TEST(NotificationHub, RandomSubscribersMissNothingAndSeeNothingTwice) {
  for (unsigned round = 0; round < 30; ++round) {
    CNotificationHub hub({100000, 100});
    const std::size_t topic = hub.AddTopic();
    std::vector<std::thread> users;
    for (unsigned user = 1; user < 4; ++user) {
      users.emplace_back([&, user] {
        Jitter jitter(round * 10 + user);
        for (auto end = CSubscription::EEnd::No; end == CSubscription::EEnd::No;) {
          Reader reader(hub, topic);
          jitter.Pass();
          const std::vector<int> numbers = reader.Read(1 + jitter.Below(20));
          for (std::size_t i = 1; i < numbers.size(); ++i) {
            ASSERT_EQ(numbers[i], numbers[i - 1] + 1);
          }
          end = reader.End();
          EXPECT_TRUE(end != CSubscription::EEnd::Stopping || numbers.empty() || numbers.back() == 299);
          hub.Unsubscribe(topic, reader.mSubscription);
        }
      });
    }
    Jitter jitter(round * 10);
    for (int i = 0; i < 300; ++i) {
      hub.Send(topic, Numbered(i), true);
      jitter.Pass();
    }
    hub.Stop();
    for (auto& user : users) {
      user.join();  // a stopped hub ends every wait
    }
  }
}

}  // namespace
