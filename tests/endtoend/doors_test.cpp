#include <fmt/format.h>
#include <grpcpp/grpcpp.h>

#include <algorithm>
#include <map>
#include <sstream>

#include "tests/endtoend/daemontest.h"
#include "tests/framework/handover.h"

using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::Le;

namespace {

constexpr size_t kLargestLine = 4500;  // the cut text, and the time and the source position before it

/// A client that keeps a stream of tokens open and reads only on demand.
class TokenStream {
 public:
  explicit TokenStream(std::unique_ptr<ipc::Rfid::Stub> stub) : mStub(std::move(stub)) {
    mContext.set_deadline(std::chrono::system_clock::now() + std::chrono::minutes(10));
    mReader = mStub->Subscribe(&mContext, {});
    mReader->WaitForInitialMetadata();  // the subscription is there
  }
  ~TokenStream() {
    if (!mEnded) {
      mContext.TryCancel();
      End();
    }
  }
  /// The next token's UID; nothing at the end of the stream.
  std::optional<std::string> Next() {
    ipc::MRfidNotification notification;
    return mReader->Read(&notification) ? std::optional(notification.token().uid()) : std::nullopt;
  }
  grpc::StatusCode End() {
    mEnded = true;
    while (Next()) {
    }
    return mReader->Finish().error_code();
  }

 private:
  const std::unique_ptr<ipc::Rfid::Stub> mStub;
  grpc::ClientContext mContext;
  std::unique_ptr<grpc::ClientReader<ipc::MRfidNotification>> mReader;
  bool mEnded = false;
};

class Doors : public DaemonTest {
 protected:
  /// A client with its own connection.
  std::unique_ptr<ipc::Rfid::Stub> Stub() const {
    grpc::ChannelArguments arguments;
    arguments.SetString(GRPC_ARG_DEFAULT_AUTHORITY, "Rfid");
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    return ipc::Rfid::NewStub(grpc::CreateCustomChannel("unix:" + Path("run/rfid.sock"),
                                                        grpc::InsecureChannelCredentials(), arguments));
  }
  std::vector<size_t> LineLengths() const {
    std::vector<size_t> lengths;
    std::istringstream log(Log());
    for (std::string line; std::getline(log, line);) {
      lengths.push_back(line.size());
    }
    return lengths;
  }
};

/// Requests that all wait for their answers at the same time.
class Flood {
 public:
  explicit Flood(ipc::Rfid::Stub& stub) : mStub(stub) {}

  void Inject(const std::string& uid) {
    auto& call = *mCalls.emplace_back(std::make_unique<Call>());
    call.context.set_deadline(std::chrono::system_clock::now() + std::chrono::minutes(10));
    call.request.set_uid(uid);
    mStub.async()->InjectToken(
        &call.context, &call.request, &call.result,
        [answers = mAnswers](const grpc::Status& status) { answers->Put(status.error_code()); });
  }

  /// Waits for all answers. Returns how often each status came.
  std::map<grpc::StatusCode, size_t> Answers() {
    std::map<grpc::StatusCode, size_t> answers;
    for (size_t i = 0; i < mCalls.size(); ++i) {
      ++answers[mAnswers->Take(std::chrono::minutes(11)).value()];  // every call has a deadline
    }
    return answers;
  }

 private:
  struct Call {
    grpc::ClientContext context;
    ipc::MInjectToken request;
    ipc::MResult result;
  };
  using Mailbox = handover::Mailbox<grpc::StatusCode>;
  ipc::Rfid::Stub& mStub;
  std::vector<std::unique_ptr<Call>> mCalls;
  const std::shared_ptr<Mailbox> mAnswers = std::make_shared<Mailbox>();
};

}  // namespace

TEST_F(Doors, OversizedAndNonTextRequestsAreRefused) {
  StartDaemon();
  EnableDaemon();
  EXPECT_THAT(mSupervisor->Inject(std::string(70 * 1024, 'A')), HasSubstr("status 8"));
  EXPECT_THAT(mSupervisor->Inject("04\xFF\x9B"), HasSubstr("status "));
}

TEST_F(Doors, OddTextReachesTheLogCutAndEscaped) {
  StartDaemon();
  EnableDaemon();
  const std::string large = "04A1\n\x1b[2J\u009b" + std::string(60 * 1024, 'B');
  EXPECT_EQ(mSupervisor->Inject(large), "Ok");
  EXPECT_TRUE(Notifies("token " + large + " ERfidUidInvalid"));
  EXPECT_TRUE(Logs("RfidToken notif: '04A1\\x0a\\x1b[2J\\xc2\\x9bBBBB"));
  const auto log = LogUntilNow();
  EXPECT_TRUE(std::none_of(log.begin(), log.end(), [](char character) {
    const auto byte = static_cast<unsigned char>(character);
    return (byte < 0x20 && character != '\n') || byte > 0x7F;
  }));
  EXPECT_THAT(LineLengths(), Each(Le(kLargestLine)));
}

TEST_F(Doors, AFloodOfRequestsCostsLittleAndTheSupervisorIsStillHeard) {
  constexpr size_t kRequests = kIsSanitized ? 1000 : 10000;
  StartDaemon({});
  EnableDaemon();
  const auto stub = Stub();
  EXPECT_EQ(mSupervisor->Inject("04A1B2C3"), "Ok");
  const size_t threads = mDaemon->Threads();
  const size_t memory = mDaemon->Memory("VmHWM");
  size_t mostThreads = 0;
  Flood flood(*stub);
  for (size_t i = 0; i < kRequests; ++i) {
    flood.Inject(fmt::format("04{:06X}", i));
    if (i == kRequests / 2) {
      EXPECT_EQ(mSupervisor->Enable(), "Ok");
      mostThreads = mDaemon->Threads();
    }
  }
  auto answers = flood.Answers();
  // One connection carries fewer calls at a time than the service's queue holds: none is refused.
  EXPECT_EQ(answers[grpc::StatusCode::OK], kRequests);
  printf("flood: memory %zu KiB, before %zu KiB; threads %zu, before %zu\n", mDaemon->Memory("VmHWM"), memory,
         mostThreads, threads);
  if (!kIsSanitized) {
    EXPECT_LE(mDaemon->Memory("VmHWM"), memory + 16 * 1024);
  }
  EXPECT_LE(std::max(mostThreads, mDaemon->Threads()), threads + kSpareThreads);
  EXPECT_TRUE(Notifies("Enabled"));
  Tap("11223344");
  EXPECT_TRUE(Notifies("token 11223344 ERfidUidNotInList"));
}

TEST_F(Doors, ASubscriberThatNeverReadsIsEndedAndTheOthersGoOn) {
  StartDaemon({});
  EnableDaemon();
  TokenStream idle(Stub());
  TokenStream busy(Stub());
  // More than fits into the transport and into the queue of one subscriber.
  const std::string padding(48 * 1024, 'A');
  for (int i = 0; i < 500; ++i) {
    const auto uid = fmt::format("{}X{}", i, padding);
    ASSERT_EQ(mSupervisor->Inject(uid), "Ok");
    ASSERT_EQ(busy.Next(), uid);
  }
  EXPECT_TRUE(Logs("A subscriber of Rfid fell behind and was disconnected"));
  int card = 0;
  const auto log = [&] {
    const auto uid = fmt::format("{:08X}", ++card);
    EXPECT_EQ(mSupervisor->Inject(uid), "Ok");
    EXPECT_EQ(busy.Next(), uid);
    return Log();
  };
  EXPECT_TRUE(Becomes(log, HasSubstr("A subscriber of Rfid does not read at all and was cut off")));
  EXPECT_EQ(idle.End(), grpc::StatusCode::CANCELLED);
  printf("a subscriber that never reads: memory %zu KiB at most\n", mDaemon->Memory("VmHWM"));
}

TEST_F(Doors, EverySubscriberGetsATokenAndOneTooManyIsRefused) {
  constexpr size_t kRoom = 256 - 1;  // one stream is the supervisor's
  StartDaemon({});
  EnableDaemon();
  const size_t threads = mDaemon->Threads();
  std::vector<std::unique_ptr<TokenStream>> subscribers;
  while (subscribers.size() < kRoom) {
    subscribers.push_back(std::make_unique<TokenStream>(Stub()));
  }
  EXPECT_EQ(TokenStream(Stub()).End(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  Tap("04A1B2C3");
  for (const auto& subscriber : subscribers) {
    EXPECT_EQ(subscriber->Next(), "04A1B2C3");
  }
  EXPECT_LE(mDaemon->Threads(), threads + kSpareThreads);
  EXPECT_EQ(Interrupt(), "exit 0");
  for (const auto& subscriber : subscribers) {
    EXPECT_EQ(subscriber->End(), grpc::StatusCode::UNAVAILABLE);
  }
}
