#include "services.h"

#include <utility>

#include "ipc/generic_control.grpc.pb.h"
#include "ipc/log_config.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"
#include "notificationstream.h"
#include "unaryrequest.h"
#include "utf8.h"

namespace {

using Context = grpc::CallbackServerContext;
using Unary = grpc::ServerUnaryReactor;
template <typename Message>
using Stream = grpc::ServerWriteReactor<Message>;

/// The gRPC side of a service object.
template <typename Service, typename Interface>
class CAdapter : public Service {
 public:
  CAdapter(ServiceRuntime& runtime, std::shared_ptr<Interface> service)
      : mRuntime(runtime), mService(std::move(service)) {}

 protected:
  /// `call` gets the service object and the request.
  template <typename Request, typename Response, typename Call>
  Unary* Serve(const char* operation, Context* context, const Request* request, Response* response,
               Call call) {
    return ServeRequest(mRuntime, operation, context, request, response,
                        [call, service = mService](const Request& r) { return call(*service, r); });
  }

  ServiceRuntime& mRuntime;

 private:
  const std::shared_ptr<Interface> mService;
};

class CGenericControlAdapter final : public CAdapter<ipc::GenericControl::CallbackService, IGenericControl> {
 public:
  using CAdapter::CAdapter;

  Unary* Enable(Context* context, const ipc::MEmpty* request, ipc::MResult* response) override {
    return Serve("Enable", context, request, response,
                 [](auto& service, const auto&) { return service.Enable(); });
  }
  Unary* Disable(Context* context, const ipc::MEmpty* request, ipc::MResult* response) override {
    return Serve("Disable", context, request, response,
                 [](auto& service, const auto&) { return service.Disable(); });
  }
  Stream<ipc::MGenericControlNotification>* Subscribe(Context* context, const ipc::MEmpty*) override {
    return CNotificationStream<ipc::MGenericControlNotification>::Open(mRuntime, context);
  }
};

class CRfidAdapter final : public CAdapter<ipc::Rfid::CallbackService, IRfid> {
 public:
  using CAdapter::CAdapter;

  Unary* EnableLearning(Context* context, const ipc::MEnableLearning* request,
                        ipc::MResult* response) override {
    return Serve("EnableLearning", context, request, response,
                 [](auto& service, const auto& r) { return service.EnableLearning(r.enable()); });
  }
  Unary* InjectToken(Context* context, const ipc::MInjectToken* request, ipc::MResult* response) override {
    return Serve("InjectToken", context, request, response,
                 [](auto& service, const auto& r) { return service.InjectToken(r.uid()); });
  }
  Stream<ipc::MRfidNotification>* Subscribe(Context* context, const ipc::MEmpty*) override {
    return CNotificationStream<ipc::MRfidNotification>::Open(mRuntime, context);
  }
};

class CLogConfigAdapter final : public CAdapter<ipc::LogConfig::CallbackService, ILogConfig> {
 public:
  using CAdapter::CAdapter;

  Unary* GetLogLevel(Context* context, const ipc::MEmpty* request, ipc::MLogLevel* response) override {
    return Serve("GetLogLevel", context, request, response,
                 [](auto& service, const auto&) { return service.GetLogLevel(); });
  }
  Unary* SetLogLevel(Context* context, const ipc::MLogLevel* request, ipc::MResult* response) override {
    return Serve("SetLogLevel", context, request, response,
                 [](auto& service, const auto& r) { return service.SetLogLevel(r); });
  }
};

template <typename Adapter, typename Interface>
ServiceEntry MakeEntry(const std::string& name, const std::shared_ptr<CNotificationHub>& hub,
                       const std::shared_ptr<Interface>& service) {
  auto runtime = std::make_unique<ServiceRuntime>(name, hub);
  auto adapter = std::make_unique<Adapter>(*runtime, service);
  return {std::move(runtime), std::move(adapter)};
}

}  // namespace

ServiceEntry MakeService(const std::string& name, const std::shared_ptr<CNotificationHub>& hub,
                         const std::shared_ptr<IGenericControl>& service) {
  ServiceEntry entry = MakeEntry<CGenericControlAdapter>(name, hub, service);
  const std::size_t topic = entry.runtime->topic;
  service->SendState = [hub, topic](ipc::MState state) {
    auto message = std::make_shared<ipc::MGenericControlNotification>();
    *message->mutable_state() = std::move(state);
    hub->Send(topic, message, true);
  };
  service->SendAlive = [hub, topic] {
    auto message = std::make_shared<ipc::MGenericControlNotification>();
    message->mutable_alive();
    hub->Send(topic, message, false);
  };
  return entry;
}

ServiceEntry MakeService(const std::string& name, const std::shared_ptr<CNotificationHub>& hub,
                         const std::shared_ptr<IRfid>& service) {
  ServiceEntry entry = MakeEntry<CRfidAdapter>(name, hub, service);
  const std::size_t topic = entry.runtime->topic;
  service->SendRfidToken = [hub, topic](ipc::MRfidToken token) {
    auto message = std::make_shared<ipc::MRfidNotification>();
    *message->mutable_token() = std::move(token);
    message->mutable_token()->set_uid(ValidUtf8(message->token().uid()));
    hub->Send(topic, message, false);
  };
  service->SendRfidLearningToken = [hub, topic](const std::string& uid) {
    auto message = std::make_shared<ipc::MRfidNotification>();
    message->mutable_learning_token()->set_uid(ValidUtf8(uid));
    hub->Send(topic, message, false);
  };
  return entry;
}

ServiceEntry MakeService(const std::string& name, const std::shared_ptr<CNotificationHub>& hub,
                         const std::shared_ptr<ILogConfig>& service) {
  return MakeEntry<CLogConfigAdapter>(name, hub, service);
}
