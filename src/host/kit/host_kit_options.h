// The options of a HostKit.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "contract/queue.h"
#include "host/base/clock.h"
#include "host/http/http_client.h"
#include "host/json/record_stamp.h"
#include "host/queue/queue_service_options.h"
#include "host/services/function_notification.h"
#include "host/services/line_tracer.h"

namespace veld_report::host {

class QueueService;

// One report server.
struct KitEndpoint {
  std::string url{};       // http:// or https://, UTF-8; the name of its queue is derived from it
  std::string consumer{};  // gets the submissions to this name, and those without a name
  // As described in host/http/http_client.h: CA certificates in PEM form or "sha256//..." pins.
  std::vector<std::string> certificates{};
  std::string compress{};  // the bodies: "none", "gzip" or "zstd"; empty: none
};

struct KitSettings {
  std::vector<KitEndpoint> endpoints{};
  std::uint32_t packetLimit = 100;  // maximum records in a request; 0: no limit
  // Maximum size of a request's records, in units of 1024 bytes; a larger record is sent alone; 0: no limit.
  // The default is what a link of 100 KB/s uploads while the module waits for the answer.
  std::uint32_t packetLimitKb = 256;
  std::uint32_t queueLimitKb = 10240;  // of each endpoint's queue, in units of 1024 bytes
  std::uint32_t sendTimeoutS = 30;     // delay after a cycle that left items undelivered
  std::uint32_t sendEveryS = 0;        // minimum time between the first requests of two cycles to one url
  // Allows http:// urls to other machines than this one. Without TLS anyone on the way can read the records,
  // and any 200, such as that of a hotel's login page, deletes them.
  bool allowHttp = false;
  std::vector<CommonMember> common{};  // of every record that is an object
  // An Ed25519 private key in PEM form, read when the settings are made. None: the present one stays; empty:
  // messages are unsigned.
  std::optional<std::string> signingKeyFile{};
};

struct HostKitOptions {
  std::string modulePath{};  // of the module's library; empty: see LoadModule (host/kit/module_path.h)
  KitSettings settings{};
  QueueServiceOptions queues{};  // `folder` is required; `tracer` and `pacer` are set by the kit
  HttpClientOptions http{};      // `tracer`, `clock` and `takeRecords` are set by the kit
  LineTracerOptions trace{.level = 0};
  // How soon a record moves from memory into the store's file. Sending keeps its pace. None: with the
  // sender's cycle, which comes a second after the first record, and the store's next commit.
  std::optional<std::chrono::milliseconds> storeWithin{};
  bool stamp = false;  // adds an id and the time to each record (host/json/record_stamp.h)
  FunctionNotification::Function onRequestFinished{};  // may be empty
  std::shared_ptr<Clock> clock{};  // of the timer, the intervals and the HTTP client; null: the system's
  // If set, called once with the open store, before a queue of a former url is removed. What it throws ends
  // the kit's constructor.
  std::function<void(QueueService&)> onOpened{};
  // If set, called once with the queue service; the module gets its result instead. For measuring or watching
  // the traffic between the two.
  std::function<zel::Ref<orvel::IQueueFactory>(zel::Ref<orvel::IQueueFactory>)> wrapQueues{};
};

}  // namespace veld_report::host
