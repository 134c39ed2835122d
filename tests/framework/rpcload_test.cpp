#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <future>
#include <map>
#include <vector>

#include "evidence.h"
#include "framework/hosttesting.h"
#include "rpcclients.h"

namespace {

using namespace rpctesting;
using testing::ElementsAre;
using testing::Pair;

/// Many Enable requests at once, on a connection of their own.
class Flood {
 public:
  explicit Flood(const std::string& address) : mClient(OwnConnection(address)) {}

  static std::shared_ptr<grpc::Channel> OwnConnection(const std::string& address) {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    return ChannelTo(address, "RfidGenCtrl", arguments);
  }

  void Add(int count) {
    for (int i = 0; i < count; ++i) {
      mCalls.push_back(std::make_unique<Call>());
      static const ipc::MEmpty empty;
      mClient.stub->async()->Enable(
          &mCalls.back()->context, &empty, &mCalls.back()->result,
          [this](const grpc::Status& status) { mAnswers.Put(status.error_code()); });
    }
  }
  void Cancel() {
    for (const auto& call : mCalls) {
      call->context.TryCancel();
    }
  }
  /// Makes calls on this connection, so that the server has seen all earlier ones.
  void AwaitArrival() {
    for (int i = 0; i < 3; ++i) {
      Context context;
      mClient.stub->Subscribe(&context, {})->WaitForInitialMetadata();
      context.TryCancel();
    }
  }

  Mailbox<grpc::StatusCode> mAnswers;

 private:
  struct Call {
    Context context;
    ipc::MResult result;
  };
  ControlClient mClient;
  std::vector<std::unique_ptr<Call>> mCalls;
};

constexpr int kRunning = 2;
constexpr int kWaiting = 64;

TEST_F(RpcHostTest, OnlyASubscriberThatDoesNotReadIsDisconnected) {
  Start();
  // The flow-control window does not grow, so that the transport buffers little for the slow subscriber.
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0);
  const auto slowStub = ipc::Rfid::NewStub(ChannelTo(mAddress, "Rfid", arguments));
  const auto quickStub = RfidStub();
  Context slowContext;
  Context quickContext;
  const auto slow = slowStub->Subscribe(&slowContext, {});
  const auto quick = quickStub->Subscribe(&quickContext, {});
  slow->WaitForInitialMetadata();
  quick->WaitForInitialMetadata();

  // Far more than the transport's buffers and the subscriber's queue hold. Stop when the subscriber has
  // fallen behind: later it would be cut off.
  constexpr int kCount = 500;
  const auto lines = std::make_shared<Lines>();
  GrpcBackend::SetLogger(lines);
  const std::string padding(4096, 'A');
  ipc::MRfidNotification notification;
  int sent = 0;
  for (; sent < kCount && lines->Text().find("fell behind") == std::string::npos; ++sent) {
    mRfid->SendRfidLearningToken(std::to_string(sent) + padding);
    ASSERT_TRUE(quick->Read(&notification));
    ASSERT_EQ(notification.learning_token().uid(), std::to_string(sent) + padding);
  }
  GrpcBackend::SetLogger(nullptr);
  int read = 0;
  while (slow->Read(&notification)) {
    EXPECT_EQ(notification.learning_token().uid(), std::to_string(read) + padding);
    ++read;
  }
  EXPECT_LT(read, sent);
  EXPECT_EQ(slow->Finish().error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  quickContext.TryCancel();
}

TEST_F(RpcHostTest, AFloodIsRefusedBeyondItsBound) {
  const auto gate = std::make_shared<Gate>();
  mControl->OnEnable([gate] { gate->Pass(); });
  Start();
  constexpr int kShare = 33;
  std::array<Flood, 3> floods{Flood(mAddress), Flood(mAddress), Flood(mAddress)};
  floods[0].Add(kRunning);
  ASSERT_TRUE(gate->AwaitWaiting(kRunning));
  for (Flood& flood : floods) {
    flood.Add(kShare);
  }
  const auto answers = [&](int count) {
    std::map<grpc::StatusCode, int> codes;
    Eventually([&] {
      for (Flood& flood : floods) {
        if (const auto answer = flood.mAnswers.Take(Clock::duration::zero()); answer) {
          ++codes[*answer];
          --count;
        }
      }
      return count <= 0;
    });
    return codes;
  };
  EXPECT_THAT(answers(3 * kShare - kWaiting),
              ElementsAre(Pair(grpc::StatusCode::RESOURCE_EXHAUSTED, 3 * kShare - kWaiting)));
  Context context;
  ipc::MResult result;
  EXPECT_EQ(StatusText(RfidStub()->InjectToken(&context, {}, &result)), "OK: ") << "another service answers";
  gate->Open();
  EXPECT_THAT(answers(kRunning + kWaiting), ElementsAre(Pair(grpc::StatusCode::OK, kRunning + kWaiting)));
}

TEST_F(RpcHostTest, ARequestWhoseClientGaveUpIsNotCarriedOut) {
  Start();
  const auto carriedOut = [&] {
    const auto gate = std::make_shared<Gate>();
    const auto count = std::make_shared<std::atomic<int>>(0);
    mControl->OnEnable([gate, count] {
      ++*count;
      gate->Pass();
    });
    Flood flood(mAddress);
    constexpr int kQueued = 40;
    flood.Add(kRunning);
    EXPECT_TRUE(gate->AwaitWaiting(kRunning));
    flood.Add(kQueued);
    flood.AwaitArrival();
    flood.Cancel();
    flood.AwaitArrival();
    gate->Open();
    EXPECT_EQ(StatusText(Client().Enable()), "OK: ");  // it stands behind all others
    for (int i = 0; i < kRunning + kQueued; ++i) {
      EXPECT_NE(flood.mAnswers.Take(), std::nullopt);
    }
    return count->load();
  };
  // If gRPC's thread is not scheduled in time, it reports the cancellation too late. Then try again.
  EXPECT_TRUE(Becomes(carriedOut, testing::Le(kRunning + 4)));
}

TEST_F(RpcHostTest, StopIsBoundedEvenWhenARequestNeverReturns) {
  const auto gate = std::make_shared<Gate>();
  mControl->OnEnable([gate] { gate->Pass(); });
  Start();
  std::vector<std::future<grpc::Status>> answers;
  for (int i = 0; i < 4; ++i) {  // two run, two wait
    answers.push_back(std::async(std::launch::async, [&] { return Client().Enable(); }));
  }
  ASSERT_TRUE(gate->AwaitWaiting(2));
  ControlClient client = Client();
  Context context;
  const auto stream = client.stub->Subscribe(&context, {});
  stream->WaitForInitialMetadata();

  const auto start = Clock::now();
  mRunning.Stop();  // the gate stays shut
  EXPECT_LT(Clock::now() - start, seconds(30)) << "Stop waited for the request";
  int unavailable = 0;
  for (auto& answer : answers) {
    // A request may not have reached the queue yet. It arrives while the server closes and is cancelled.
    const grpc::StatusCode code = answer.get().error_code();
    EXPECT_THAT(code, testing::AnyOf(grpc::StatusCode::UNAVAILABLE, grpc::StatusCode::CANCELLED));
    unavailable += code == grpc::StatusCode::UNAVAILABLE ? 1 : 0;
  }
  EXPECT_GE(unavailable, 2);
  EXPECT_EQ(stream->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
  EXPECT_FALSE(std::filesystem::exists(mRoot.At("run/rfid/rfid.sock")));
  EXPECT_FALSE(std::filesystem::exists(mRoot.At("run/rfid/rfid.sock.lock")));

  mControl->SendAlive();  // the service may go on sending
  gate->Open();           // the handler may return late
  EXPECT_TRUE(Becomes([&] { return gate.use_count(); }, 2));
}

}  // namespace
