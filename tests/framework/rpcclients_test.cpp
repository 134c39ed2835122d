#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <fstream>

#include "diagnosticstransport.h"
#include "evidence.h"
#include "framework/diagnostics.h"
#include "ipc/diagnostics.grpc.pb.h"
#include "ipc/feedback.grpc.pb.h"
#include "rpcclients.h"
#include "rpctesting.h"

namespace rpctesting {

int FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), size), 0);
  EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
  close(fd);
  return ntohs(address.sin_port);
}

}  // namespace rpctesting

namespace {

using namespace rpctesting;
using testing::AllOf;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;

struct FeedbackService final : ipc::Feedback::Service {
  grpc::Status TriggerFeedbackEvent(grpc::ServerContext*, const ipc::MFbEventType* event,
                                    ipc::MResult* result) override {
    mEvents.Put(event->type());
    mGate.Pass();
    std::this_thread::sleep_for(mSlowness.load());
    result->set_result(ipc::EResultIllegal);
    return grpc::Status::OK;
  }
  std::atomic<milliseconds> mSlowness{milliseconds(0)};
  Mailbox<ipc::EFbEventType> mEvents;
  Gate mGate;
};

/// Takes values only one by one, like an old peer without the method for several.
struct DiagnosticsService : ipc::Diagnostics::Service {
  grpc::Status UpdateSignal(grpc::ServerContext*, const ipc::MSignal* signal, ipc::MResult* result) override {
    mValues.Put(signal->value());
    result->set_result(signal->value() == "illegal" ? ipc::EResultIllegal : ipc::EResultOk);
    return signal->value() == "refused" ? grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, "")
                                        : grpc::Status::OK;
  }
  Mailbox<std::string> mValues;
};

struct DiagnosticsServiceForSeveral final : DiagnosticsService {
  grpc::Status UpdateSignals(grpc::ServerContext* context, const ipc::MSignals* signals,
                             ipc::MResult* result) override {
    grpc::Status status;
    for (const ipc::MSignal& signal : signals->signals()) {
      ipc::MResult one;
      if (const auto answer = UpdateSignal(context, &signal, &one); !answer.ok()) {
        status = answer;
      }
      result->set_result(std::max(result->result(), one.result()));
    }
    return status;
  }
};

/// A peer that offers one service under a name.
struct PeerServer {
  PeerServer(const std::string& address, const std::string& name, grpc::Service& service) {
    grpc::ServerBuilder builder;
    builder.AddListeningPort(address, grpc::InsecureServerCredentials());
    builder.RegisterService(name, &service);
    mServer = builder.BuildAndStart();
    EXPECT_TRUE(mServer);
  }
  ~PeerServer() { mServer->Shutdown(std::chrono::system_clock::now()); }
  std::unique_ptr<grpc::Server> mServer;
};

/// A socket that accepts connections and never answers by itself.
struct Listener {
  explicit Listener(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(mSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(mSocket, 5), 0);
  }
  ~Listener() { close(mSocket); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  const int mSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

/// A host without services.
struct ClientHost : RunningHost {
  explicit ClientHost(const std::string& config) : RunningHost(config) { Serve(); }
};

class FeedbackClientTest : public testing::Test {
 protected:
  FeedbackClientTest() { MakeClient(); }

  /// Timeouts in seconds. The defaults are long enough for any machine.
  void MakeClient(int connectTimeout = 60, int callTimeout = 60) {
    mClient = mHost.Host().CreateClient<IFeedback>("Feedback");
    mClient->SetConnectTimeout(connectTimeout);
    mClient->SetCallTimeout(callTimeout);
    mFeedback = mClient->GetInterface();
  }

  std::string ErrorOfCall(ipc::EFbEventType type = ipc::EFbAuthAccepted) {
    ipc::MFbEventType event;
    event.set_type(type);
    try {
      mFeedback->TriggerFeedbackEvent(event);
    } catch (const Rpc::CommunicationException& e) {
      return e.what();
    }
    return "";
  }

  const Root mRoot;
  const std::string mAddress = "unix:" + mRoot.At("feedback.sock");
  ClientHost mHost{mRoot.Listen()};
  std::shared_ptr<IClient<IFeedback>> mClient;
  std::shared_ptr<IFeedback> mFeedback;
  FeedbackService mService;
};

TEST_F(FeedbackClientTest, FailsAtOnceWithoutThePeerAndFindsItLater) {
  // Waiting for the connect timeout would give DEADLINE_EXCEEDED.
  EXPECT_THAT(ErrorOfCall(),
              AllOf(HasSubstr("Feedback.TriggerFeedbackEvent: UNAVAILABLE: "), HasSubstr(mAddress)));
  EXPECT_THAT(ErrorOfCall(), HasSubstr("UNAVAILABLE"));

  mService.mGate.Open();
  for (int i = 0; i < 2; ++i) {  // comes, goes, comes again
    {
      const PeerServer peer(mAddress, "Feedback", mService);
      EXPECT_TRUE(Becomes([&] { return ErrorOfCall(); }, IsEmpty()));
    }
    EXPECT_TRUE(Becomes([&] { return ErrorOfCall(); }, Not(IsEmpty())));
  }
}

TEST_F(FeedbackClientTest, PassesEventsAndAnswersForTwoThreadsAtOnce) {
  const PeerServer peer(mAddress, "Feedback", mService);
  mService.mGate.Open();
  const auto call = [&] {
    for (int i = 0; i < 50; ++i) {
      ipc::MFbEventType event;
      event.set_type(ipc::EFbTokenScanned);
      EXPECT_EQ(mFeedback->TriggerFeedbackEvent(event).result(), ipc::EResultIllegal);
      EXPECT_EQ(mService.mEvents.Take(), ipc::EFbTokenScanned);
    }
  };
  std::thread other(call);
  call();
  other.join();
}

TEST_F(FeedbackClientTest, ACallEndsWhenItsPeerHangsOrDies) {
  auto peer = std::make_unique<PeerServer>(mAddress, "Feedback", mService);
  MakeClient(60, 1);
  const auto timeOfCall = [&] {
    const auto start = Clock::now();
    EXPECT_THAT(ErrorOfCall(),
                HasSubstr("DEADLINE_EXCEEDED"));  // whether or not the request reached the peer
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
  };
  EXPECT_TRUE(Becomes(timeOfCall, testing::Lt(4000))) << "the default timeout is five seconds";

  MakeClient();
  std::thread killer([&] {
    EXPECT_TRUE(Becomes([&] { return mService.mEvents.Take(); }, Optional(ipc::EFbTokenScanned)));
    mService.mGate.Open();
    peer.reset();
  });
  ErrorOfCall(ipc::EFbTokenScanned);
  killer.join();
  EXPECT_THAT(ErrorOfCall(), HasSubstr("UNAVAILABLE"));
}

TEST_F(FeedbackClientTest, AHangingPeerCostsOneCallItsWholeTimeout) {
  const PeerServer peer(mAddress, "Feedback", mService);
  const auto lines = std::make_shared<Lines>();
  GrpcBackend::SetLogger(lines);
  mService.mGate.Open();
  EXPECT_TRUE(Becomes([&] { return ErrorOfCall(); }, IsEmpty()));
  mService.mSlowness = seconds(2);
  mClient->SetCallTimeout(1);
  EXPECT_THAT(ErrorOfCall(), HasSubstr("DEADLINE_EXCEEDED"));
  mClient->SetConnectTimeout(3600);
  mClient->SetCallTimeout(3600);
  for (int i = 0; i < 3; ++i) {
    EXPECT_THAT(ErrorOfCall(), HasSubstr("DEADLINE_EXCEEDED"))
        << "the peer answers within two seconds, so the call had less";
  }
  mService.mSlowness = milliseconds(0);
  EXPECT_TRUE(Becomes([&] { return ErrorOfCall(); }, IsEmpty()));
  mService.mSlowness = seconds(2);
  EXPECT_EQ(ErrorOfCall(), "") << "the whole timeout applies again";
  GrpcBackend::SetLogger(nullptr);
  const auto text = lines->Text();
  EXPECT_EQ(text, "warning: Feedback does not answer, each call gets 250 ms until it does (" + mAddress +
                      ")\ninfo: Feedback answers again (" + mAddress + ")\n");
}

TEST_F(FeedbackClientTest, AFrozenPeerIsFoundBeforeTheCallTimesOut) {
  Listener listener(mRoot.At("feedback.sock"));
  std::thread frozen([&] {
    const int connection = accept4(listener.mSocket, nullptr, nullptr, SOCK_CLOEXEC);
    // HTTP/2 begins with an empty SETTINGS frame. Nothing follows.
    const std::string settings("\0\0\0\4\0\0\0\0\0", 9);
    EXPECT_EQ(write(connection, settings.data(), settings.size()), 9);
    char byte = 0;
    while (read(connection, &byte, 1) == 1) {
    }
    close(connection);
  });
  EXPECT_THAT(ErrorOfCall(), HasSubstr("UNAVAILABLE: keepalive"));
  frozen.join();
}

TEST_F(FeedbackClientTest, ASilentPeerEndsTheCallAtTheConnectTimeout) {
  const Listener listener(mRoot.At("feedback.sock"));
  MakeClient(1);
  EXPECT_THAT(ErrorOfCall(), HasSubstr("DEADLINE_EXCEEDED: no connection within 1000 ms"));
}

TEST_F(FeedbackClientTest, AnUnknownPeerIsAConfigurationError) {
  try {
    mHost.Host().CreateClient<IFeedback>("Light");
    ADD_FAILURE() << "no error";
  } catch (const Rpc::ConfigurationException& e) {
    EXPECT_EQ(e.what(), mRoot.ConfigPath() + ": peers.Light: missing");
  }
  CDiagnosticsCommClient::Initialize(
      mHost.Host());  // without this peer values are not published; that is not an error
}

template <typename Service>
class DiagnosticsTransport : public testing::Test {};
using Services = testing::Types<DiagnosticsService, DiagnosticsServiceForSeveral>;
TYPED_TEST_SUITE(DiagnosticsTransport, Services);

TYPED_TEST(DiagnosticsTransport, OnlyARestartedPeerGetsValuesAgain) {
  const Root root;
  const std::string path = root.At("diagnostics.sock");
  const std::string address = "unix:" + path;
  // The listening socket, the connection that delivers and the one that watches the peer.
  const auto sockets = [&] {
    std::ifstream table("/proc/net/unix");
    int count = 0;
    for (std::string line; std::getline(table, line);) {
      count += line.ends_with(path) ? 1 : 0;
    }
    return count;
  };
  const CSignalDefinition<std::string> definition{ipc::ESignalRfidState, "state", "", ""};
  CDiagnosticsSignal<std::string> signal(&definition);
  signal.Send("kept");
  ClientHost host(root.Configure(
      R"({"listen": "unix:rfid.sock", "peers": {"Diagnostics": "unix:diagnostics.sock"}, "configuration": "hub"})"));
  CDiagnosticsCommClient::Initialize(host.Host());
  for (int i = 0; i < 2; ++i) {
    DiagnosticsService former;
    TypeParam service;
    DiagnosticsService& taking = i == 0 ? former : service;
    const PeerServer peer(address, "Diagnostics", taking);
    EXPECT_TRUE(Becomes([&] { return taking.mValues.Take(); }, Optional(std::string("kept"))));
    EXPECT_TRUE(Becomes(sockets, Ge(3)));
  }
  // The timeout is long, so that no value is sent twice because the machine stalls.
  CDiagnosticsCommClient::Initialize(
      CreateDiagnosticsTransport(host.Host().Queue(), "Diagnostics", address, seconds(60)));
  TypeParam service;
  const PeerServer peer(address, "Diagnostics", service);
  EXPECT_TRUE(Becomes([&] { return service.mValues.Take(); }, Optional(std::string("kept"))));
  for (const std::string value : {"refused", "illegal", "next"}) {
    signal.Send(value);
    EXPECT_EQ(service.mValues.Take(), value);
  }
  CDiagnosticsCommClient::Terminate();
}

TEST(DiagnosticsTransportEnd, TerminateDoesNotWaitForASilentPeer) {
  const Root root;
  const std::string address = "unix:" + root.At("diagnostics.sock");
  struct Silent final : ipc::Diagnostics::Service {
    grpc::Status UpdateSignal(grpc::ServerContext*, const ipc::MSignal*, ipc::MResult*) override {
      mGate.Pass();
      return grpc::Status::OK;
    }
    Gate mGate;
  } service;
  const PeerServer peer(address, "Diagnostics", service);
  const CSignalDefinition<std::string> definition{ipc::ESignalRfidState, "state", "", ""};
  CDiagnosticsSignal<std::string> signal(&definition);
  signal.Send("value");
  const ClientHost host(root.Listen());
  const auto transport =
      CreateDiagnosticsTransport(host.Host().Queue(), "Diagnostics", address, seconds(120));
  CDiagnosticsCommClient::Initialize(transport);
  EXPECT_TRUE(service.mGate.AwaitWaiting(1));
  const auto start = Clock::now();
  CDiagnosticsCommClient::Terminate();
  EXPECT_LT(Clock::now() - start, seconds(30)) << "Terminate waited for the answer";
  EXPECT_TRUE(Becomes([&] { return transport.use_count(); }, 1)) << "the call still runs";
  EXPECT_FALSE(transport->Deliver({})) << "the transport is cancelled";
  service.mGate.Open();
}

}  // namespace
