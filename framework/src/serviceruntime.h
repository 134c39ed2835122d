#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "notificationhub.h"
#include "requestpool.h"

/// What the wire needs to offer one service: a topic for its notifications and threads for its requests.
struct ServiceRuntime {
  ServiceRuntime(std::string registeredName, std::shared_ptr<CNotificationHub> notificationHub)
      : name(std::move(registeredName)), hub(std::move(notificationHub)), topic(hub->AddTopic()) {}

  const std::string name;
  const std::shared_ptr<CNotificationHub> hub;
  const std::size_t topic;
  // Two threads: while one request waits for the state machine, the next can run. The queue absorbs bursts.
  CRequestPool pool{"rpc-" + name, 2, 64};
};
