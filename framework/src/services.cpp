#include "services.h"

#include <utility>

#include "ipc/generic_control.grpc.pb.h"
#include "ipc/log_config.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"
#include "servicereactors.h"
#include "utf8.h"

namespace {

// Two, so that one request that waits for the state machine does not hold up the next; the queue is for
// bursts.
constexpr std::size_t kThreadsPerService = 2;
constexpr std::size_t kWaitingRequests = 64;

class CGenericControlService final : public ipc::GenericControl::CallbackService {
 public:
  CGenericControlService(ServiceRuntime& runtime, std::shared_ptr<IGenericControl> service)
      : mRuntime(runtime), mService(std::move(service)) {}

  grpc::ServerUnaryReactor* Enable(grpc::CallbackServerContext* context, const ipc::MEmpty* request,
                                   ipc::MResult* response) override {
    return ServeRequest<ipc::MEmpty, ipc::MResult>(
        mRuntime, "Enable", context, request, response,
        [service = mService](const ipc::MEmpty&) { return service->Enable(); });
  }

  grpc::ServerUnaryReactor* Disable(grpc::CallbackServerContext* context, const ipc::MEmpty* request,
                                    ipc::MResult* response) override {
    return ServeRequest<ipc::MEmpty, ipc::MResult>(
        mRuntime, "Disable", context, request, response,
        [service = mService](const ipc::MEmpty&) { return service->Disable(); });
  }

  grpc::ServerWriteReactor<ipc::MGenericControlNotification>* Subscribe(grpc::CallbackServerContext* context,
                                                                        const ipc::MEmpty*) override {
    return CNotificationStream<ipc::MGenericControlNotification>::Open(mRuntime, context);
  }

 private:
  ServiceRuntime& mRuntime;
  const std::shared_ptr<IGenericControl> mService;
};

class CRfidService final : public ipc::Rfid::CallbackService {
 public:
  CRfidService(ServiceRuntime& runtime, std::shared_ptr<IRfid> service)
      : mRuntime(runtime), mService(std::move(service)) {}

  grpc::ServerUnaryReactor* EnableLearning(grpc::CallbackServerContext* context,
                                           const ipc::MEnableLearning* request,
                                           ipc::MResult* response) override {
    return ServeRequest<ipc::MEnableLearning, ipc::MResult>(
        mRuntime, "EnableLearning", context, request, response,
        [service = mService](const ipc::MEnableLearning& r) { return service->EnableLearning(r.enable()); });
  }

  grpc::ServerUnaryReactor* InjectToken(grpc::CallbackServerContext* context,
                                        const ipc::MInjectToken* request, ipc::MResult* response) override {
    return ServeRequest<ipc::MInjectToken, ipc::MResult>(
        mRuntime, "InjectToken", context, request, response,
        [service = mService](const ipc::MInjectToken& r) { return service->InjectToken(r.uid()); });
  }

  grpc::ServerWriteReactor<ipc::MRfidNotification>* Subscribe(grpc::CallbackServerContext* context,
                                                              const ipc::MEmpty*) override {
    return CNotificationStream<ipc::MRfidNotification>::Open(mRuntime, context);
  }

 private:
  ServiceRuntime& mRuntime;
  const std::shared_ptr<IRfid> mService;
};

class CLogConfigService final : public ipc::LogConfig::CallbackService {
 public:
  CLogConfigService(ServiceRuntime& runtime, std::shared_ptr<ILogConfig> service)
      : mRuntime(runtime), mService(std::move(service)) {}

  grpc::ServerUnaryReactor* GetLogLevel(grpc::CallbackServerContext* context, const ipc::MEmpty* request,
                                        ipc::MLogLevel* response) override {
    return ServeRequest<ipc::MEmpty, ipc::MLogLevel>(
        mRuntime, "GetLogLevel", context, request, response,
        [service = mService](const ipc::MEmpty&) { return service->GetLogLevel(); });
  }

  grpc::ServerUnaryReactor* SetLogLevel(grpc::CallbackServerContext* context, const ipc::MLogLevel* request,
                                        ipc::MResult* response) override {
    return ServeRequest<ipc::MLogLevel, ipc::MResult>(
        mRuntime, "SetLogLevel", context, request, response,
        [service = mService](const ipc::MLogLevel& r) { return service->SetLogLevel(r); });
  }

 private:
  ServiceRuntime& mRuntime;
  const std::shared_ptr<ILogConfig> mService;
};

template <typename Service, typename Interface>
ServiceEntry MakeEntry(const std::string& name, std::shared_ptr<CNotificationHub> hub,
                       std::shared_ptr<Interface> service) {
  ServiceEntry entry;
  entry.runtime = std::make_unique<ServiceRuntime>(name, std::move(hub));
  entry.service = std::make_unique<Service>(*entry.runtime, std::move(service));
  return entry;
}

}  // namespace

ServiceRuntime::ServiceRuntime(std::string registeredName, std::shared_ptr<CNotificationHub> notificationHub)
    : name(std::move(registeredName)),
      hub(std::move(notificationHub)),
      topic(hub->AddTopic()),
      pool("rpc-" + name, kThreadsPerService, kWaitingRequests) {}

ServiceEntry MakeService(const std::string& name, const std::shared_ptr<CNotificationHub>& hub,
                         const std::shared_ptr<IGenericControl>& service) {
  ServiceEntry entry = MakeEntry<CGenericControlService>(name, hub, service);
  const std::size_t topic = entry.runtime->topic;
  service->SendState = [hub, topic](ipc::MState state) {
    auto message = std::make_shared<ipc::MGenericControlNotification>();
    *message->mutable_state() = std::move(state);
    hub->Send(topic, std::move(message), true);
  };
  service->SendAlive = [hub, topic] {
    auto message = std::make_shared<ipc::MGenericControlNotification>();
    message->mutable_alive();
    hub->Send(topic, std::move(message), false);
  };
  return entry;
}

ServiceEntry MakeService(const std::string& name, const std::shared_ptr<CNotificationHub>& hub,
                         const std::shared_ptr<IRfid>& service) {
  ServiceEntry entry = MakeEntry<CRfidService>(name, hub, service);
  const std::size_t topic = entry.runtime->topic;
  service->SendRfidToken = [hub, topic](ipc::MRfidToken token) {
    auto message = std::make_shared<ipc::MRfidNotification>();
    *message->mutable_token() = std::move(token);
    message->mutable_token()->set_uid(ValidUtf8(message->token().uid()));
    hub->Send(topic, std::move(message), false);
  };
  service->SendRfidLearningToken = [hub, topic](const std::string& uid) {
    auto message = std::make_shared<ipc::MRfidNotification>();
    message->mutable_learning_token()->set_uid(ValidUtf8(uid));
    hub->Send(topic, std::move(message), false);
  };
  return entry;
}

ServiceEntry MakeService(const std::string& name, const std::shared_ptr<CNotificationHub>& hub,
                         const std::shared_ptr<ILogConfig>& service) {
  return MakeEntry<CLogConfigService>(name, hub, service);
}
