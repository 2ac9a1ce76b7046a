// HostKit: the whole host in one object. It makes all services, loads the module and creates two senders.
//
// A sender's cycle first moves what is in its memory into the store and then delivers from the store, which
// can take minutes behind slow servers; meanwhile nothing leaves its memory. So one sender takes the records
// and only moves them, and a second one, with a timer of its own, only delivers. The first starts the second.
//
// Programs and the reporter API are built on it. An application that only wants to report uses the reporter.
// One with services of its own writes its own host against contract/ and picks single services from host/.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "contract/sender.h"
#include "host/json/record_stamp.h"
#include "host/kit/drain_watch.h"
#include "host/kit/host_kit_options.h"
#include "host/kit/module_sender.h"
#include "host/kit/submission_watch.h"
#include "host/kit/url_states.h"
#include "host/queue/queue_service.h"
#include "host/services/execution_mode.h"
#include "host/services/heap_allocator.h"
#include "host/services/line_tracer.h"
#include "host/services/loaded_module.h"
#include "host/services/service_locator.h"
#include "host/services/timer_service.h"
#include "host/signature/ed25519_signer.h"

namespace veld_report::host {

class BuiltSettings;
class DeliveryGate;

// Life: running (from the constructor on) -> closed.
// Threads: any, for all operations except Close and the destructor, during which nobody may use the kit. The
// services may be used until Close.
class HostKit {
 public:
  // Opens the store, loads the module, creates and constructs the senders. Nothing is sent before the first
  // submission or TriggerCycle. Throws std::exception (StoreError, std::invalid_argument, std::runtime_error)
  // with a sentence that says what is wrong, and leaves nothing behind.
  explicit HostKit(const HostKitOptions& options);
  HostKit(const HostKit&) = delete;
  HostKit& operator=(const HostKit&) = delete;
  ~HostKit();

  // Submits a record; an empty `consumer` means all endpoints. The record isn't used after the return. An
  // accepted one is in memory until the next cycle, at most a second later (see storeWithin in the options),
  // moves it into the store. A record
  // that can't be serialised is refused with its code. One for a consumer that no endpoint has is accepted,
  // and then dropped by the sender.
  Submission Submit(std::string_view consumer, const zel::AnyPtr& record);
  // The same for a record that is finished JSON text, of one object.
  Submission SubmitJson(std::string_view consumer, std::string_view text);
  // Starts a cycle within a second without a submission: for what an earlier run left, and after the chain of
  // cycles has ended with items waiting. BeginDrain() starts it at once.
  void TriggerCycle();
  // Moves what is in memory into the store at once, and then starts a cycle. A drain that is just starting
  // may swallow the request, so a caller that depends on it must repeat it.
  void BeginDrain();
  // Starts a cycle at once, or as soon as the one in progress has ended, even if there is nothing to send. A
  // cycle that is just starting may swallow the request, so a caller that depends on it must repeat it.
  void BeginCycle();
  // Moves what is in memory into the store and then runs one whole cycle. False if it hasn't ended by then.
  bool RunCycle(std::chrono::steady_clock::time_point deadline);

  // The next cycle sends even if the interval since the last requests isn't over (KitSettings::sendEveryS).
  void SkipSendInterval();

  // How long nothing of the url is sent if its queue has so many items: requests to it are held back, or all
  // items were refused. 0: that may happen now.
  std::chrono::milliseconds HeldBackFor(const std::string& url, std::int64_t waitingItems) const;

  // If false, no request starts after the return, and one in flight ends as cancelled; records are still
  // accepted and stored. If true, a cycle begins at once. Calls must not overlap. Sending is allowed at
  // first.
  void AllowSending(bool allowed) noexcept;
  bool IsSendingAllowed() const { return mode_->BackgroundAllowed(); }

  // Replaces the settings as a whole. The next cycle uses them, and removes queues whose url is gone, with
  // their items. The next request is signed with the new key. Throws std::invalid_argument or
  // std::runtime_error, with nothing changed.
  void SetSettings(const KitSettings& settings);

  QueueService& Queues() { return *queues_; }
  // Of the sender that delivers, and of the one that takes records.
  TimerService& Timer() { return *timer_; }
  TimerService& DrainTimer() { return *drainTimer_; }
  HttpClientFactory& Http() { return *http_; }
  ExecutionMode& Mode() { return *mode_; }
  const DrainWatch& Drains() const { return *drains_; }

  // Ends a request in flight and a cycle in progress, moves what is in memory into the store, and shuts
  // everything down. Waits for no server. Returns true if the module could be unloaded, which isn't possible
  // while the application holds an object of it. A second call does nothing.
  bool Close();

 private:
  void RegisterServices(const HostKitOptions& options);
  void MakeSenders(const KitSettings& settings);
  void SetRecordLimit(const KitSettings& settings);
  void OnDrained();
  // Unless one is due sooner.
  void BeginCycleWithin(std::chrono::milliseconds delay);

  const std::optional<std::chrono::milliseconds> storeWithin_;
  // A cycle is to follow the next drain at once. Set before the drain is asked for under the timer's lock.
  std::atomic<bool> cycleWanted_{false};
  zel::Ref<HeapAllocator> allocator_;
  zel::Ref<LineTracer> tracer_;
  const std::shared_ptr<DeliveryGate> gate_;  // shared with the store and the HTTP clients
  std::mutex settingsMutex_;                  // held from AnnounceUrls to the end of the SetSettings after it
  std::unique_ptr<const BuiltSettings> settings_;
  const std::shared_ptr<RecordStamp> stamp_;  // shared with the serialiser
  std::unique_ptr<LoadedModule> module_;
  zel::Ref<Ed25519Signer> signer_;
  zel::Ref<HttpClientFactory> http_;
  zel::Ref<QueueService> queues_;
  const std::shared_ptr<UrlStateFile> urlStates_;  // shared with the notification of completed requests
  zel::Ref<TimerService> timer_;
  zel::Ref<TimerService> drainTimer_;
  zel::Ref<ExecutionMode> mode_;
  zel::Ref<DrainWatch> drains_;
  zel::Ref<ServiceLocator> locator_;
  zel::Ref<ServiceLocator> intakeLocator_;
  std::unique_ptr<ModuleSender> delivery_;
  std::unique_ptr<ModuleSender> intake_;

  const std::uint64_t storeLimitBytes_;
  // No record of more bytes can ever be in a queue. A submission beside SetSettings goes by either limit.
  std::atomic<std::uint64_t> recordLimitBytes_{0};
};

}  // namespace veld_report::host
