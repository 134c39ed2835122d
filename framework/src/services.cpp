#include "services.h"

#include <utility>

#include "ipc/generic_control.grpc.pb.h"
#include "ipc/log_config.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"
#include "notificationstream.h"
#include "unaryrequest.h"
#include "utf8.h"

namespace {

/// One service's methods, by their names on the wire.
template <typename Interface>
class CMethods {
 public:
  CMethods(const std::string& name, const std::shared_ptr<CNotificationHub>& hub,
           std::shared_ptr<Interface> service, std::string wireName)
      : mService(std::move(service)),
        mPrefix("/" + std::move(wireName) + "/"),
        mEntry{std::make_unique<ServiceRuntime>(name, hub), {}} {}

  /// `call` gets the service object and the request.
  template <typename Request, typename Response, typename Call>
  void Add(const char* operation, Call call) {
    std::function<Response(const Request&)> handler = [call, service = mService](const Request& request) {
      return call(*service, request);
    };
    mEntry.methods[mPrefix + operation] = UnaryMethod(*mEntry.runtime, operation, std::move(handler));
  }

  void AddSubscribe() {
    mEntry.methods[mPrefix + "Subscribe"] = [&runtime = *mEntry.runtime](const auto& call) {
      CNotificationStream::Open(runtime, call);
    };
  }

  ServiceEntry Take() { return std::move(mEntry); }

 private:
  const std::shared_ptr<Interface> mService;
  const std::string mPrefix;
  ServiceEntry mEntry;
};

}  // namespace

ServiceEntry MakeService(const std::string& name, const std::shared_ptr<CNotificationHub>& hub,
                         const std::shared_ptr<IGenericControl>& service) {
  CMethods methods(name, hub, service, ipc::GenericControl::service_full_name());
  methods.Add<ipc::MEmpty, ipc::MResult>("Enable", [](auto& s, const auto&) { return s.Enable(); });
  methods.Add<ipc::MEmpty, ipc::MResult>("Disable", [](auto& s, const auto&) { return s.Disable(); });
  methods.AddSubscribe();
  ServiceEntry entry = methods.Take();
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
  CMethods methods(name, hub, service, ipc::Rfid::service_full_name());
  methods.Add<ipc::MEnableLearning, ipc::MResult>(
      "EnableLearning", [](auto& s, const auto& request) { return s.EnableLearning(request.enable()); });
  methods.Add<ipc::MInjectToken, ipc::MResult>(
      "InjectToken", [](auto& s, const auto& request) { return s.InjectToken(request.uid()); });
  methods.AddSubscribe();
  ServiceEntry entry = methods.Take();
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
  CMethods methods(name, hub, service, ipc::LogConfig::service_full_name());
  methods.Add<ipc::MEmpty, ipc::MLogLevel>("GetLogLevel",
                                           [](auto& s, const auto&) { return s.GetLogLevel(); });
  methods.Add<ipc::MLogLevel, ipc::MResult>(
      "SetLogLevel", [](auto& s, const auto& request) { return s.SetLogLevel(request); });
  return methods.Take();
}
