#include <gmock/gmock.h>
#include <sys/stat.h>

#include <atomic>
#include <future>
#include <vector>

#include "ipc/log_config.grpc.pb.h"
#include "rpctesting.h"

namespace {

using namespace rpctesting;
using testing::HasSubstr;

/// Answers Ok to Enable and Illegal to Disable.
struct Control : IGenericControl {
  ipc::MResult Enable() override {
    std::function<void()> action;
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      action = mOnEnable;
    }
    if (action) {
      action();
    }
    return {};
  }
  ipc::MResult Disable() override {
    ipc::MResult result;
    result.set_result(ipc::EResultIllegal);
    return result;
  }
  void OnEnable(std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mOnEnable = std::move(action);
  }

 private:
  std::mutex mMutex;
  std::function<void()> mOnEnable;
};

struct Rfid : IRfid {
  ipc::MResult EnableLearning(bool) override { return {}; }
  ipc::MResult InjectToken(const std::string& uid) override {
    mInjected.Put(uid);
    return {};
  }
  Mailbox<std::string> mInjected;
};

struct ControlClient {
  ControlClient(const std::string& address, const std::string& name)
      : ControlClient(ChannelTo(address, name)) {}
  explicit ControlClient(const std::shared_ptr<grpc::Channel>& channel)
      : stub(ipc::GenericControl::NewStub(channel)) {}
  grpc::Status Enable() {
    Context context;
    return stub->Enable(&context, {}, &result);
  }
  std::unique_ptr<ipc::GenericControl::Stub> stub;
  ipc::MResult result;
};

/// Enable requests that are on their way at once.
class Flood {
 public:
  explicit Flood(ControlClient& client) : mClient(client) {}

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

  Mailbox<grpc::StatusCode> mAnswers;

 private:
  struct Call {
    Context context;
    ipc::MResult result;
  };
  ControlClient& mClient;
  std::vector<std::unique_ptr<Call>> mCalls;
};

constexpr int kRunning = 2;
constexpr int kWaiting = 64;

class RpcHostTest : public testing::Test {
 protected:
  void Start() {
    mRunning.Host().AddService<IGenericControl>("RfidGenCtrl", mControl);
    mRunning.Host().AddService<IRfid>("Rfid", mRfid);
    mRunning.Start();
  }
  ControlClient Client() const { return {mAddress, "RfidGenCtrl"}; }
  std::unique_ptr<ipc::Rfid::Stub> RfidStub() const {
    return ipc::Rfid::NewStub(ChannelTo(mAddress, "Rfid"));
  }

  const Root mRoot;
  const std::string mAddress = "unix:" + mRoot.At("run/rfid/rfid.sock");
  const std::shared_ptr<Control> mControl = std::make_shared<Control>();
  const std::shared_ptr<Rfid> mRfid = std::make_shared<Rfid>();
  RunningHost mRunning{mRoot.Listen()};
};

class RpcHostAddressTest : public testing::TestWithParam<bool> {};

TEST_P(RpcHostAddressTest, ServicesOfOneInterfaceAnswerUnderTheirOwnNamesAndASecondInstanceIsRefused) {
  const Root root;
  const std::string listen =
      GetParam() ? "127.0.0.1:" + std::to_string(FreePort()) : "unix:" + root.At("rfid.sock");
  const auto one = std::make_shared<Control>();
  const auto two = std::make_shared<Control>();
  two->OnEnable([] { throw std::runtime_error("two says no"); });
  RunningHost running(root.Listen(listen));
  running.Host().AddService<IGenericControl>("One", one);
  running.Host().AddService<IGenericControl>("Two", two);
  running.Start();

  EXPECT_TRUE(ControlClient(listen, "One").Enable().ok());
  const grpc::Status status = ControlClient(listen, "Two").Enable();
  EXPECT_EQ(status.error_code(), grpc::StatusCode::INTERNAL);
  EXPECT_EQ(status.error_message(), "two says no");
  const grpc::Status unknown = ControlClient(listen, "Three").Enable();
  EXPECT_EQ(unknown.error_code(), grpc::StatusCode::UNIMPLEMENTED);
  EXPECT_EQ(unknown.error_message(),
            "no service 'Three' with a method /ipc.GenericControl/Enable; "
            "set the authority to the service's name, one of: One, Two");

  RunningHost second(root.Listen(listen));
  second.Host().AddService<IGenericControl>("One", std::make_shared<Control>());
  try {
    second.Start();
    ADD_FAILURE() << "a second instance has started";
  } catch (const Rpc::ConfigurationException& e) {
    EXPECT_THAT(e.what(), HasSubstr("Cannot listen on " + listen + ": "));
    EXPECT_THAT(e.what(), HasSubstr(GetParam() ? "Address already in use" : "in use by a running instance"));
  }
  EXPECT_TRUE(ControlClient(listen, "One").Enable().ok());
}

INSTANTIATE_TEST_SUITE_P(Address, RpcHostAddressTest, testing::Bool(),
                         [](const auto& tcp) { return tcp.param ? "Tcp" : "Unix"; });

TEST_F(RpcHostTest, AnswersWithWhatTheServiceReturnsAndTakesItsErrorsForStatuses) {
  Start();
  ControlClient client = Client();
  Context context;
  ipc::MResult result;
  EXPECT_TRUE(client.stub->Disable(&context, {}, &result).ok());
  EXPECT_EQ(result.result(), ipc::EResultIllegal);

  mControl->OnEnable([] {
    std::future<void> dropped = std::promise<void>().get_future();
    dropped.get();
  });
  EXPECT_EQ(client.Enable().error_code(), grpc::StatusCode::UNAVAILABLE);
  mControl->OnEnable([] {
    std::promise<void> promise;
    promise.get_future();
    promise.get_future();
  });
  EXPECT_EQ(client.Enable().error_code(), grpc::StatusCode::INTERNAL);
  mControl->OnEnable([] { throw 7; });
  EXPECT_EQ(client.Enable().error_code(), grpc::StatusCode::INTERNAL);
}

TEST_F(RpcHostTest, ANewSubscriberGetsTheLastStateAndNothingElseOfThePast) {
  Start();
  ipc::MState state;
  state.set_state(ipc::EStateDisabled);
  mControl->SendState(state);
  state.set_state(ipc::EStateEnabled);
  mControl->SendState(state);
  mControl->SendAlive();
  ipc::MRfidToken token;
  token.set_uid("OLD");
  mRfid->SendRfidToken(token);

  ControlClient client = Client();
  Context stateContext;
  const auto states = client.stub->Subscribe(&stateContext, {});
  ipc::MGenericControlNotification notification;
  ASSERT_TRUE(states->Read(&notification));
  EXPECT_EQ(notification.state().state(), ipc::EStateEnabled);
  mControl->SendAlive();
  ASSERT_TRUE(states->Read(&notification));
  EXPECT_TRUE(notification.has_alive());

  const auto stub = RfidStub();
  Context tokenContext;
  const auto tokens = stub->Subscribe(&tokenContext, {});
  tokens->WaitForInitialMetadata();  // the subscription is there
  mRfid->SendRfidLearningToken("NEW\xFF");
  ipc::MRfidNotification first;
  ASSERT_TRUE(tokens->Read(&first));
  EXPECT_EQ(first.learning_token().uid(), "NEW?");
  mRunning.Stop();
  while (tokens->Read(&first)) {
  }
  EXPECT_EQ(tokens->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
}

TEST_F(RpcHostTest, ASubscriberThatDoesNotReadIsDisconnectedWhileAnotherGetsAll) {
  Start();
  // A window that does not grow, so that what the transport takes for the slow one is small.
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

  // Far more than fits into the transport's buffers and the subscriber's queue; but none once it has fallen
  // behind, as one that goes on not reading is cut off after a while.
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

TEST_F(RpcHostTest, AFloodIsRefusedBeyondItsBoundWhileAnotherServiceAnswers) {
  const auto gate = std::make_shared<Gate>();
  mControl->OnEnable([gate] { gate->Pass(); });
  Start();
  constexpr int kRefused = 34;
  ControlClient client = Client();
  Flood flood(client);
  flood.Add(kRunning);
  ASSERT_TRUE(gate->AwaitWaiting(kRunning));
  flood.Add(kWaiting + kRefused);
  for (int i = 0; i < kRefused; ++i) {
    EXPECT_EQ(flood.mAnswers.Take(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  }
  Context context;
  ipc::MResult result;
  EXPECT_TRUE(RfidStub()->InjectToken(&context, {}, &result).ok());
  gate->Open();
  for (int i = 0; i < kRunning + kWaiting; ++i) {
    EXPECT_EQ(flood.mAnswers.Take(), grpc::StatusCode::OK);
  }
}

TEST_F(RpcHostTest, ARequestWhoseClientGaveUpBeforeItsTurnIsNotCarriedOut) {
  Start();
  ControlClient client = Client();
  const auto areNotCarriedOut = [&] {
    const auto gate = std::make_shared<Gate>();
    const auto count = std::make_shared<std::atomic<int>>(0);
    mControl->OnEnable([gate, count] {
      ++*count;
      gate->Pass();
    });
    Flood flood(client);
    flood.Add(kRunning);
    EXPECT_TRUE(gate->AwaitWaiting(kRunning));
    flood.Add(kWaiting + 1);
    // One is refused: the others have arrived.
    EXPECT_EQ(flood.mAnswers.Take(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    flood.Cancel();
    // What the server answers on this connection now comes after it has heard of that.
    for (int i = 0; i < 3; ++i) {
      Context context;
      client.stub->Subscribe(&context, {})->WaitForInitialMetadata();
      context.TryCancel();
    }
    gate->Open();
    EXPECT_TRUE(Eventually([&] { return client.Enable().ok(); }));  // it stands behind all of them
    for (int i = 0; i < kRunning + kWaiting; ++i) {
      EXPECT_TRUE(flood.mAnswers.Take().has_value());
    }
    return *count <= kRunning + 4;
  };
  // A thread of gRPC's that is not scheduled just then passes it on too late: another try shows it.
  EXPECT_TRUE(Eventually(areNotCarriedOut));
}

TEST_F(RpcHostTest, StopIsBoundedAndAnswersEveryClientAlsoWhenARequestNeverReturns) {
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
  mRunning.Stop();  // although the gate stays shut
  EXPECT_LT(Clock::now() - start, seconds(30)) << "it waits for the request";
  int unavailable = 0;
  for (auto& answer : answers) {
    // Nothing shows that one waits in the queue: it may as well arrive while the server closes, which cancels
    // it.
    const grpc::StatusCode code = answer.get().error_code();
    EXPECT_THAT(code, testing::AnyOf(grpc::StatusCode::UNAVAILABLE, grpc::StatusCode::CANCELLED));
    unavailable += code == grpc::StatusCode::UNAVAILABLE ? 1 : 0;
  }
  EXPECT_GE(unavailable, 2);
  EXPECT_EQ(stream->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
  EXPECT_FALSE(std::filesystem::exists(mRoot.At("run/rfid/rfid.sock")));
  EXPECT_FALSE(std::filesystem::exists(mRoot.At("run/rfid/rfid.sock.lock")));

  mControl->SendAlive();  // the service may go on sending
  gate->Open();           // a late return harms nobody
  EXPECT_TRUE(Eventually([&] { return gate.use_count() == 2; }));
}

TEST_F(RpcHostTest, TheSocketIsForOwnerAndGroupAndAStaleOneIsTakenOver) {
  struct stat status {};
  {
    // What an instance leaves that was killed.
    std::filesystem::create_directories(mRoot.At("run"));
    ASSERT_EQ(mkdir(mRoot.At("run/rfid").c_str(), 0750), 0);
    std::ofstream(mRoot.At("run/rfid/rfid.sock.lock")) << "";
    grpc::ServerBuilder builder;
    builder.AddListeningPort(mAddress, grpc::InsecureServerCredentials());
    ipc::GenericControl::Service service;
    builder.RegisterService(&service);
    const auto dead = builder.BuildAndStart();
    ASSERT_TRUE(dead);
    std::filesystem::rename(mRoot.At("run/rfid/rfid.sock"), mRoot.At("run/rfid/kept"));
  }
  std::filesystem::rename(mRoot.At("run/rfid/kept"), mRoot.At("run/rfid/rfid.sock"));

  const mode_t old = umask(0);
  Start();
  umask(old);
  ASSERT_EQ(stat(mRoot.At("run/rfid/rfid.sock").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0660U);
  EXPECT_TRUE(Client().Enable().ok());
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(mRoot.At("run/rfid"))) {
    names.push_back(entry.path().filename().string());
  }
  EXPECT_THAT(names, testing::UnorderedElementsAre("rfid.sock", "rfid.sock.lock"));
}

TEST_F(RpcHostTest, MakesTheSocketsFolderAndRefusesWhatIsNoSocket) {
  std::filesystem::create_directories(mRoot.At("run/rfid/rfid.sock"));
  EXPECT_THROW(Start(), Rpc::ConfigurationException);
  std::filesystem::remove_all(mRoot.At("run"));
  std::filesystem::create_directories(mRoot.At("run/rfid/rfid.sock.lock"));
  EXPECT_THROW(mRunning.Start(), Rpc::ConfigurationException);
  std::filesystem::remove_all(mRoot.At("run"));
  std::ofstream(mRoot.At("run")) << "a file where a folder should be";
  EXPECT_THROW(mRunning.Start(), Rpc::ConfigurationException);
  std::filesystem::remove(mRoot.At("run"));
  mRunning.Start();
  struct stat status {};
  ASSERT_EQ(stat(mRoot.At("run/rfid").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0027, 0U);
}

TEST_F(RpcHostTest, EveryOrderOfLifeEnds) {
  mRunning.Host().AddService<IRfid>("Rfid", mRfid);
  EXPECT_THROW(mRunning.Host().AddService<IRfid>("Rfid", mRfid), std::invalid_argument);
  mRfid->SendRfidLearningToken("before");
  mRunning.Host().StartServices();
  EXPECT_THROW(mRunning.Host().StartServices(), std::logic_error);
  EXPECT_THROW(mRunning.Host().AddService<IRfid>("Late", mRfid), std::logic_error);
  mRunning.Host().Stop();
  mRunning.Host().RunServer();
  mRunning.Host().HandleClientNotifications();
  mRunning.Host().Stop();
  mRfid->SendRfidLearningToken("after");
  { const AppCommunicationHost<GrpcBackend> neverStarted(mRoot.ConfigPath()); }
  AppCommunicationHost<GrpcBackend> neverStopped(mRoot.ConfigPath());
  EXPECT_THROW(neverStopped.StartServices(), std::logic_error);  // it has no service
  EXPECT_THROW(neverStopped.AddService<IRfid>("", mRfid), std::invalid_argument);
  neverStopped.AddService<IRfid>("Rfid", mRfid);
  neverStopped.StartServices();
}

TEST_F(RpcHostTest, LibrariesLogToTheLoggerAndNeverToStandardError) {
  testing::internal::CaptureStderr();
  ipc::MInjectToken bad;
  bad.ParseFromString("\x0A\x01\xFF");  // protobuf complains, to nobody yet
  const auto lines = std::make_shared<Lines>();
  GrpcBackend::SetLogger(lines);
  bad.ParseFromString("\x0A\x01\xFF");
  mControl->OnEnable([] { throw std::runtime_error("broken"); });
  Start();
  EXPECT_FALSE(Client().Enable().ok());
  GrpcBackend::SetLogger(nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_THAT(lines->Text(), HasSubstr("invalid UTF-8"));
  EXPECT_THAT(lines->Text(), HasSubstr("error: Request RfidGenCtrl.Enable failed: broken\n"));
}

}  // namespace
