#include <fmt/format.h>
#include <grpcpp/grpcpp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <sstream>

#include "daemontest.h"

using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::Le;

namespace {

constexpr uid_t OtherUser = 65534;
constexpr size_t LargestLine = 4500;  // the cut text, and the time and the source position before it

/// What a connection of this user and group to the socket comes to: 0 or the error. From a process of its
/// own.
int ErrorOfConnecting(const std::string& path, uid_t user, gid_t group) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const pid_t child = fork();
  if (child == 0) {
    if (setresgid(group, group, group) != 0 || setresuid(user, user, user) != 0) {
      _exit(255);
    }
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    const int result = connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    _exit(result == 0 ? 0 : errno);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// A client that keeps a stream of tokens open and reads only when it is told to.
class Subscriber {
 public:
  explicit Subscriber(std::unique_ptr<ipc::Rfid::Stub> stub) : mStub(std::move(stub)) {
    mContext.set_deadline(std::chrono::system_clock::now() + std::chrono::minutes(10));
    mReader = mStub->Subscribe(&mContext, {});
    mReader->WaitForInitialMetadata();  // the subscription is there
  }
  ~Subscriber() {
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
  /// A client with a connection of its own.
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
    mStub.async()->InjectToken(&call.context, &call.request, &call.result,
                               [this](const grpc::Status& status) {
                                 const std::lock_guard lock(mMutex);
                                 ++mAnswers[status.error_code()];
                                 ++mAnswered;
                                 mArrived.notify_all();
                               });
  }

  /// How often each status was answered, when all are.
  std::map<grpc::StatusCode, size_t> Answers() {
    std::unique_lock lock(mMutex);
    mArrived.wait(lock, [this] { return mAnswered == mCalls.size(); });  // every call has a deadline
    return mAnswers;
  }

 private:
  struct Call {
    grpc::ClientContext context;
    ipc::MInjectToken request;
    ipc::MResult result;
  };
  ipc::Rfid::Stub& mStub;
  std::vector<std::unique_ptr<Call>> mCalls;
  std::mutex mMutex;
  std::condition_variable mArrived;
  std::map<grpc::StatusCode, size_t> mAnswers;
  size_t mAnswered = 0;
};

}  // namespace

TEST_F(Doors, TheSocketIsOpenToItsGroupAndToNobodyElse) {
  WriteFile("etc/plex.json", R"({
    "listen": "unix:run/rfid/rfid.sock",
    "peers": { "Feedback": "unix:run/feedback.sock", "Diagnostics": "unix:run/diagnostics.sock" },
    "configuration": "hub"
  })");
  StartDaemon();
  const auto folder = Path("run/rfid");
  const auto file = Path("run/rfid/rfid.sock");
  struct stat status {};
  ASSERT_EQ(stat(folder.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777 & ~0750U, 0U);
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0660U);
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can be another user";
  }
  std::filesystem::permissions(mRoot, std::filesystem::perms(0755));
  std::filesystem::permissions(mRoot / "run", std::filesystem::perms(0755));
  EXPECT_EQ(ErrorOfConnecting(file, OtherUser, OtherUser), EACCES);
  EXPECT_EQ(ErrorOfConnecting(file, OtherUser, status.st_gid), 0);
  // The socket keeps others out by itself, too.
  std::filesystem::permissions(folder, std::filesystem::perms(0755));
  EXPECT_EQ(ErrorOfConnecting(file, OtherUser, OtherUser), EACCES);
}

TEST_F(Doors, WhatIsTooLargeOrNoTextIsRefusedAndWhatIsOddReachesTheLogCutAndEscaped) {
  StartDaemon();
  EnableDaemon();
  EXPECT_THAT(mSupervisor->Inject(std::string(70 * 1024, 'A')), HasSubstr("status 8"));
  EXPECT_THAT(mSupervisor->Inject("04\xFF\x9B"), HasSubstr("status "));
  const std::string large = "04A1\n\x1b[2J\u009b" + std::string(60 * 1024, 'B');
  EXPECT_EQ(mSupervisor->Inject(large), "Ok");
  EXPECT_TRUE(mSupervisor->WaitFor("token " + large + " ERfidUidInvalid"));
  EXPECT_TRUE(WaitForLog("RfidToken notif: '04A1\\x0a\\x1b[2J\\xc2\\x9bBBBB"));
  const auto log = LogUntilNow();
  EXPECT_TRUE(std::none_of(log.begin(), log.end(), [](char character) {
    const auto byte = static_cast<unsigned char>(character);
    return (byte < 0x20 && character != '\n') || byte > 0x7F;
  }));
  EXPECT_THAT(LineLengths(), Each(Le(LargestLine)));
  EXPECT_EQ(mSupervisor->Inject("04A1B2C3"), "Ok");
  EXPECT_TRUE(mSupervisor->WaitFor("token 04A1B2C3 ERfidUidNotInList"));
}

TEST_F(Doors, AFloodOfRequestsCostsLittleAndTheSupervisorIsStillHeard) {
  constexpr size_t Requests = IsSanitized ? 1000 : 10000;
  StartDaemon({});
  EnableDaemon();
  const auto stub = Stub();
  EXPECT_EQ(mSupervisor->Inject("04A1B2C3"), "Ok");
  const size_t threads = mDaemon->Threads();
  const size_t memory = mDaemon->Memory("VmHWM");
  size_t mostThreads = 0;
  Flood flood(*stub);
  for (size_t i = 0; i < Requests; ++i) {
    flood.Inject(fmt::format("04{:06X}", i));
    if (i == Requests / 2) {
      EXPECT_EQ(mSupervisor->Enable(), "Ok");
      mostThreads = mDaemon->Threads();
    }
  }
  auto answers = flood.Answers();
  EXPECT_GT(answers[grpc::StatusCode::OK], 0U);
  EXPECT_GT(answers[grpc::StatusCode::RESOURCE_EXHAUSTED], 0U);
  EXPECT_EQ(answers[grpc::StatusCode::OK] + answers[grpc::StatusCode::RESOURCE_EXHAUSTED], Requests);
  printf("flood: %zu taken, %zu refused; memory %zu KiB, before %zu KiB; threads %zu, before %zu\n",
         answers[grpc::StatusCode::OK], answers[grpc::StatusCode::RESOURCE_EXHAUSTED],
         mDaemon->Memory("VmHWM"), memory, mostThreads, threads);
  if (!IsSanitized) {
    EXPECT_LE(mDaemon->Memory("VmHWM"), memory + 16 * 1024);
  }
  EXPECT_LE(std::max(mostThreads, mDaemon->Threads()), threads + SpareThreads);
  EXPECT_TRUE(mSupervisor->WaitFor("Enabled"));
  Tap("11223344");
  EXPECT_TRUE(mSupervisor->WaitFor("token 11223344 ERfidUidNotInList"));
}

TEST_F(Doors, ASubscriberThatNeverReadsIsEndedAndTheOthersGoOn) {
  StartDaemon({});
  EnableDaemon();
  Subscriber idle(Stub());
  Subscriber busy(Stub());
  // More than what the transport takes on its way and what waits for one subscriber.
  const std::string padding(48 * 1024, 'A');
  for (int i = 0; i < 500; ++i) {
    const auto uid = fmt::format("{}X{}", i, padding);
    ASSERT_EQ(mSupervisor->Inject(uid), "Ok");
    ASSERT_EQ(busy.Next(), uid);
  }
  EXPECT_TRUE(WaitForLog("A subscriber of Rfid fell behind and was disconnected"));
  int card = 0;
  EXPECT_TRUE(Eventually([&] {
    const auto uid = fmt::format("{:08X}", ++card);
    EXPECT_EQ(mSupervisor->Inject(uid), "Ok");
    EXPECT_EQ(busy.Next(), uid);
    return Log().find("A subscriber of Rfid does not read at all and was cut off") != std::string::npos;
  }));
  EXPECT_EQ(idle.End(), grpc::StatusCode::CANCELLED);
  printf("a subscriber that never reads: memory %zu KiB at most\n", mDaemon->Memory("VmHWM"));
}

TEST_F(Doors, EverySubscriberThatThereIsRoomForGetsATokenAndTheNextIsRefused) {
  constexpr size_t Room = 256 - 2;  // two streams are the supervisor's
  StartDaemon({});
  EnableDaemon();
  const size_t threads = mDaemon->Threads();
  std::vector<std::unique_ptr<Subscriber>> subscribers;
  while (subscribers.size() < Room) {
    subscribers.push_back(std::make_unique<Subscriber>(Stub()));
  }
  EXPECT_EQ(Subscriber(Stub()).End(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  Tap("04A1B2C3");
  for (const auto& subscriber : subscribers) {
    EXPECT_EQ(subscriber->Next(), "04A1B2C3");
  }
  EXPECT_LE(mDaemon->Threads(), threads + SpareThreads);
  EXPECT_EQ(Interrupt(), "exit 0");
  for (const auto& subscriber : subscribers) {
    EXPECT_EQ(subscriber->End(), grpc::StatusCode::UNAVAILABLE);
  }
}
