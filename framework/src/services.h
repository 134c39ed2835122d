#pragma once

#include <map>
#include <memory>
#include <string>

#include "framework/interfaces.h"
#include "servercall.h"
#include "serviceruntime.h"

/// One registered service.
struct ServiceEntry {
  std::unique_ptr<ServiceRuntime> runtime;
  std::map<std::string, CServerCall::Handler> methods;  // by their names on the wire; they use `runtime`
};

/// Make the methods of a service object and install the object's Send* members. The Send* members stay
/// valid for the life of the object, even after the host is gone.
ServiceEntry MakeService(const std::string& name, const std::shared_ptr<CNotificationHub>& hub,
                         const std::shared_ptr<IGenericControl>& service);
ServiceEntry MakeService(const std::string& name, const std::shared_ptr<CNotificationHub>& hub,
                         const std::shared_ptr<IRfid>& service);
ServiceEntry MakeService(const std::string& name, const std::shared_ptr<CNotificationHub>& hub,
                         const std::shared_ptr<ILogConfig>& service);
