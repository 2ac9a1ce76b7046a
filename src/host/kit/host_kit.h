// HostKit: the whole host in one object. It makes all services, loads the module, and makes a sender.
//
// It is the layer that programs and the reporter API stand on. An application that only wants to report uses
// the reporter; one that has services of its own writes its own host against contract/ and takes single
// services from host/.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "contract/sender.h"
#include "host/kit/drain_watch.h"
#include "host/kit/host_kit_options.h"
#include "host/kit/submission_watch.h"
#include "host/kit/url_states.h"
#include "host/queue/queue_service.h"
#include "host/services/execution_mode.h"
#include "host/services/heap_allocator.h"
#include "host/services/line_tracer.h"
#include "host/services/loaded_module.h"
#include "host/services/service_locator.h"
#include "host/services/timer_service.h"

namespace veld_report::host {

class BackoffRelay;

// Life: running (from the constructor on) -> closed.
// Threads: any for all operations but Close and the destructor, which run alone, when nobody uses the kit any
// more. The services may be used until Close.
class HostKit {
 public:
  // Opens the store, loads the module, makes and constructs the sender. Nothing is sent before a first
  // submission or TriggerCycle. Throws std::exception (StoreError, std::invalid_argument, std::runtime_error)
  // with a sentence that names what is wrong, and then leaves nothing behind.
  explicit HostKit(const HostKitOptions& options);
  HostKit(const HostKit&) = delete;
  HostKit& operator=(const HostKit&) = delete;
  ~HostKit();

  // Hands a record to the sender; `consumer` empty for all endpoints. The record is done with on return. An
  // accepted one stands in memory until the next cycle, at the latest a second later, puts it into the store.
  // A record that can't be serialised is refused with its code; one for a consumer that no endpoint has is
  // accepted and then dropped by the sender.
  Submission Submit(std::string_view consumer, const zel::AnyPtr& record);
  // The same for a record that is finished JSON text.
  Submission SubmitJson(std::string_view consumer, std::string_view text);
  // Starts a cycle within a second without submitting anything: for what an earlier run left behind, and
  // where the chain of cycles has ended with items waiting. Timer().FireNow() brings it forward.
  void TriggerCycle();
  // Has a cycle begin at once, or as soon as the one in progress has ended, also where there is nothing to
  // send. A cycle that is just beginning may swallow it, so who has to rely on it says it again.
  void BeginCycle();

  // With false no request starts any more from the return on, and one in flight ends as cancelled; records
  // are still taken and stored. With true a cycle begins at once. Calls must not overlap. Sending is allowed
  // from the start on.
  void AllowSending(bool allowed) noexcept;
  bool IsSendingAllowed() const { return mode_->BackgroundAllowed(); }

  // Replaces the settings as one step; the next cycle works by them, and queues of urls that are no longer
  // there are removed with their items then. Throws std::invalid_argument or std::runtime_error, with nothing
  // changed.
  void SetSettings(const KitSettings& settings);

  QueueService& Queues() { return *queues_; }
  TimerService& Timer() { return *timer_; }
  HttpClientFactory& Http() { return *http_; }
  ExecutionMode& Mode() { return *mode_; }
  const DrainWatch& Drains() const { return *drains_; }
  LineTracer& Tracer() { return *tracer_; }
  HeapAllocator& Allocator() { return *allocator_; }

  // Ends a request in flight and a cycle in progress, puts what is in memory into the store, and takes
  // everything down. Waits for no server. Returns whether the module could be unloaded, which it can't while
  // the application holds an object of it. Calling it again does nothing.
  bool Close();

 private:
  void RegisterServices(const HostKitOptions& options);
  void MakeSender(const HostKitOptions& options);

  zel::Ref<HeapAllocator> allocator_;
  zel::Ref<LineTracer> tracer_;
  zel::Ref<QueueService> queues_;
  const std::shared_ptr<UrlStateFile> urlStates_;  // shared with what hears of finished requests
  const std::shared_ptr<BackoffRelay> backoff_;    // shared with the HTTP clients
  zel::Ref<HttpClientFactory> http_;
  zel::Ref<TimerService> timer_;
  zel::Ref<ExecutionMode> mode_;
  zel::Ref<DrainWatch> drains_;
  zel::Ref<ServiceLocator> locator_;
  std::unique_ptr<LoadedModule> module_;
  zel::Ref<orvel::veld_report::IVeldReportSender> sender_;

  std::mutex settingsMutex_;  // held across AnnounceUrls and the SetSettings that belongs to it
  zel::Ref<orvel::veld_report::IVeldReportSenderSettings> senderSettings_;
};

}  // namespace veld_report::host
