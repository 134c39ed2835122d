#include <gmock/gmock.h>
#include <sys/stat.h>

#include <future>
#include <vector>

#include "framework/hosttesting.h"
#include "rpcclients.h"

namespace {

using namespace rpctesting;
using testing::HasSubstr;

class RpcHostAddressTest : public testing::TestWithParam<bool> {};

TEST_P(RpcHostAddressTest, SelectsServicesByNameAndRefusesASecondInstance) {
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

  EXPECT_EQ(StatusText(ControlClient(listen, "One").Enable()), "OK: ");
  const grpc::Status status = ControlClient(listen, "Two").Enable();
  EXPECT_EQ(StatusText(status), "INTERNAL: two says no");
  const grpc::Status unknown = ControlClient(listen, "Three").Enable();
  EXPECT_EQ(StatusText(unknown),
            "UNIMPLEMENTED: no service 'Three' with a method /ipc.GenericControl/Enable; "
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
  EXPECT_EQ(StatusText(ControlClient(listen, "One").Enable()), "OK: ");
}

INSTANTIATE_TEST_SUITE_P(Address, RpcHostAddressTest, testing::Bool(),
                         [](const auto& tcp) { return tcp.param ? "Tcp" : "Unix"; });

TEST_F(RpcHostTest, AnswersWithTheServicesResultOrItsErrorAsStatus) {
  Start();
  ControlClient client = Client();
  Context context;
  ipc::MResult result;
  EXPECT_EQ(StatusText(client.stub->Disable(&context, {}, &result)), "OK: ");
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

  ipc::MInjectToken malformed;
  malformed.set_uid("\xFF");
  Context malformedContext;
  EXPECT_EQ(StatusText(RfidStub()->InjectToken(&malformedContext, malformed, &result)),
            "INVALID_ARGUMENT: Rfid.InjectToken: the request is missing or malformed");
}

TEST_F(RpcHostTest, ANewSubscriberGetsTheLastStateOnly) {
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
  tokens->WaitForInitialMetadata();  // it is subscribed now
  mRfid->SendRfidLearningToken("NEW\xFF");
  ipc::MRfidNotification first;
  ASSERT_TRUE(tokens->Read(&first));
  EXPECT_EQ(first.learning_token().uid(), "NEW?");
  mRunning.Stop();
  while (tokens->Read(&first)) {
  }
  EXPECT_EQ(tokens->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
}

TEST_F(RpcHostTest, TheSocketHasItsModeAndAStaleOneIsTakenOver) {
  struct stat status {};
  {
    // A killed instance leaves this behind.
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
  EXPECT_EQ(StatusText(Client().Enable()), "OK: ");
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(mRoot.At("run/rfid"))) {
    names.push_back(entry.path().filename().string());
  }
  EXPECT_THAT(names, testing::UnorderedElementsAre("rfid.sock", "rfid.sock.lock"));
}

TEST_F(RpcHostTest, MakesTheSocketsFolderAndRefusesOtherFiles) {
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
  EXPECT_THROW(neverStopped.StartServices(), std::logic_error);  // no service was added
  EXPECT_THROW(neverStopped.AddService<IRfid>("", mRfid), std::invalid_argument);
  neverStopped.AddService<IRfid>("Rfid", mRfid);
  neverStopped.StartServices();
}

TEST_F(RpcHostTest, LibrariesLogToTheLoggerOnly) {
  testing::internal::CaptureStderr();
  ipc::MInjectToken bad;
  bad.ParseFromString("\x0A\x01\xFF");  // protobuf complains, and no logger is set yet
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
