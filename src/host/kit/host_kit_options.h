// What a HostKit is made from.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "contract/queue.h"
#include "host/http/http_client.h"
#include "host/queue/queue_service_options.h"
#include "host/services/function_notification.h"
#include "host/services/line_tracer.h"

namespace veld_report::host {

// One report server.
struct KitEndpoint {
  std::string url{};       // http:// or https://, UTF-8; also what the name of its queue comes from
  std::string consumer{};  // which submissions go there by name; those without a name go to every endpoint
  // Texts as host/http/http_client.h describes them: CA certificates in PEM form or "sha256//..." pins.
  std::vector<std::string> certificates{};
};

struct KitSettings {
  std::vector<KitEndpoint> endpoints{};
  std::uint32_t packetLimit = 100;     // most records in one request; 0: no limit
  std::uint32_t queueLimitKb = 10240;  // of each endpoint's queue, in units of 1024 bytes
  std::uint32_t sendTimeoutS = 30;     // from a cycle that left something undelivered to the next one
};

struct HostKitOptions {
  std::string modulePath{};  // of the module's library; empty: FindModule() (host/kit/module_path.h)
  KitSettings settings{};
  QueueServiceOptions queues{};  // `folder` is required; `tracer` is filled by the kit
  HttpClientOptions http{};      // `tracer` is filled by the kit
  LineTracerOptions trace{.level = 0};
  std::string signingKeyFile{};  // an Ed25519 private key in PEM form; empty: messages go unsigned
  FunctionNotification::Function onRequestFinished{};  // may be empty
  // If set, called once with the queue service; the module gets what it returns in place of that. For those
  // who measure or watch what passes between the two.
  std::function<zel::Ref<orvel::IQueueFactory>(zel::Ref<orvel::IQueueFactory>)> wrapQueues{};
};

}  // namespace veld_report::host
