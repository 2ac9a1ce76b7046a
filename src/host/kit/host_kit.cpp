#include "host/kit/host_kit.h"

#include <stdexcept>
#include <utility>

#include "host/base/code_text.h"
#include "host/base/text.h"
#include "host/json/json_record.h"
#include "host/json/json_storage.h"
#include "host/json/serializer.h"
#include "host/kit/module_path.h"
#include "host/kit/settings_builder.h"
#include "host/services/function_notification.h"
#include "host/services/hash_service.h"
#include "host/signature/ed25519_signer.h"

namespace veld_report::host {
namespace {

using orvel::veld_report::IVeldReportSender;
using orvel::veld_report::IVeldReportSenderConstruct;
using orvel::veld_report::IVeldReportSenderSettings;

void Require(zel::ResultCode code, const char* what) {
  if (zel::Failed(code)) throw std::runtime_error(std::string(what) + ": " + CodeText(code));
}

zel::Ref<QueueService> OpenQueues(QueueServiceOptions options, const zel::Ref<LineTracer>& tracer) {
  options.tracer = tracer;
  auto queues = QueueService::Open(options);
  // Creates the default store now. The module would only do so in its first cycle, where nobody hears of a
  // full disk.
  if (!options.inspectOnly) queues->Commit();
  return queues;
}

// Called for completed requests: updates the state file, then calls the application's function.
FunctionNotification::Function WatchRequests(const zel::Ref<HttpClientFactory>& http,
                                             std::shared_ptr<UrlStateFile> states,
                                             FunctionNotification::Function own) {
  return [http, states = std::move(states), own = std::move(own)](const FinishedRequest& request) {
    states->Update(*http);
    if (own) own(request);
  };
}

}  // namespace

// A held-back request ends the sender's walk, and the remaining urls would wait for sendTimeout. The relay
// makes the next cycle come sooner. It only uses the timer while the kit is running, since a client may
// outlive the kit.
class BackoffRelay {
 public:
  void SetTimer(TimerService* timer) {
    const std::lock_guard lock(mutex_);
    timer_ = timer;
  }
  void OnBackoff() {
    const std::lock_guard lock(mutex_);
    if (timer_) timer_->RunSoon(soonMs, mostInARow);
  }

 private:
  static constexpr std::uint32_t soonMs = 50;
  static constexpr std::uint32_t mostInARow = 8;

  std::mutex mutex_;
  TimerService* timer_ = nullptr;
};

namespace {

zel::Ref<HttpClientFactory> MakeHttp(HttpClientOptions options, const zel::Ref<LineTracer>& tracer,
                                     std::shared_ptr<BackoffRelay> relay) {
  options.tracer = tracer;
  options.onBackoff = [relay = std::move(relay), own = std::move(options.onBackoff)] {
    relay->OnBackoff();
    if (own) own();
  };
  return CreateHttpClientFactory(options);
}

}  // namespace

HostKit::HostKit(const HostKitOptions& options)
    : allocator_(MakeObject<HeapAllocator>()),
      tracer_(MakeObject<LineTracer>(options.trace)),
      queues_(OpenQueues(options.queues, tracer_)),
      urlStates_(std::make_shared<UrlStateFile>(options.queues.folder)),
      backoff_(std::make_shared<BackoffRelay>()),
      http_(MakeHttp(options.http, tracer_, backoff_)),
      timer_(MakeObject<TimerService>(TimerOptions{nullptr, tracer_})),
      mode_(MakeObject<ExecutionMode>()),
      drains_(MakeObject<DrainWatch>(mode_, timer_)),
      locator_(MakeObject<ServiceLocator>()) {
  backoff_->SetTimer(timer_.Get());
  try {
    RegisterServices(options);
    MakeSender(options);
  } catch (...) {
    Close();
    throw;
  }
}

HostKit::~HostKit() { Close(); }

void HostKit::RegisterServices(const HostKitOptions& options) {
  ServiceLocator& locator = *locator_;
  locator.Register<zel::IAllocator>(allocator_);
  locator.Register<zel::ITracer>(tracer_);
  locator.Register<crypto::hash::IHashCalculatorFactory>(MakeObject<HashService>());
  const zel::Ref<orvel::IQueueFactory> queues(queues_);
  locator.Register<orvel::IQueueFactory>(options.wrapQueues ? options.wrapQueues(queues) : queues);
  locator.Register<network_services::IHttpClientFactory>(http_);
  locator.Register<zel::ITimerService>(timer_);
  locator.Register<orvel::IExecutionModeProvider>(drains_);
  locator.Register<zel::IJsonStorageFactory>(CreateJsonStorageFactory());
  locator.Register<zel::IStorageSerializer2>(CreateWatchedSerializer(CreateSerializer()));
  locator.Register<orvel::IRequestsNotification>(
      MakeObject<FunctionNotification>(WatchRequests(http_, urlStates_, options.onRequestFinished)));
  if (!options.signingKeyFile.empty()) {
    locator.Register<orvel::ISignatureProvider>(
        MakeObject<Ed25519Signer>(Ed25519Key::PrivateFromFile(options.signingKeyFile)));
  }
}

void HostKit::MakeSender(const HostKitOptions& options) {
  const BuiltSettings settings(options.settings);
  module_ = std::make_unique<LoadedModule>(options.modulePath.empty() ? FindModule() : options.modulePath);
  const auto factory = module_->MakeFactory(locator_.Get());
  zel::Ref<IVeldReportSender> sender;
  Require(factory->CreateInstance(locator_.Get(), IVeldReportSender::iid, sender.OutVoid()),
          "module: the sender can't be created");
  zel::Ref<IVeldReportSenderConstruct> construct;
  Require(sender->QueryInterface(IVeldReportSenderConstruct::iid, construct.OutVoid()),
          "module: the sender can't be constructed");
  Require(sender->QueryInterface(IVeldReportSenderSettings::iid, senderSettings_.OutVoid()),
          "module: the sender takes no settings");
  const std::lock_guard lock(settingsMutex_);
  http_->AnnounceUrls(settings.Urls());
  Require(construct->Construct(settings.Record()), "module: the sender refuses its services or settings");
  urlStates_->SetUrls(settings.Urls());
  sender_ = std::move(sender);
}

Submission HostKit::Submit(std::string_view consumer, const zel::AnyPtr& record) {
  if (!sender_) return {zel::eNotInitialized};
  const zel::string name = ToNarrow(consumer);
  SubmissionWatch watch;
  const zel::ResultCode code = sender_->SendStatistic(name, record);
  if (zel::Failed(code)) return {code};
  return watch.Take();
}

Submission HostKit::SubmitJson(std::string_view consumer, std::string_view text) {
  JsonRecord record{std::string(text)};
  return Submit(consumer, record.AsAny());
}

void HostKit::TriggerCycle() { SubmitJson(triggerConsumer, "{}"); }

void HostKit::BeginCycle() {
  if (!timer_->IsArmed()) TriggerCycle();
  timer_->FireNow();
}

void HostKit::AllowSending(bool allowed) noexcept {
  // With the gate of the walk alone, the rest of a queue would still be sent. With that of the requests
  // alone, walks would start in vain.
  mode_->AllowBackground(allowed);
  http_->AllowRequests(allowed);
  if (!allowed) return;
  try {
    BeginCycle();
  } catch (...) {
    // No memory for a trigger: the sender asks again by itself after its send timeout.
  }
}

void HostKit::SetSettings(const KitSettings& settings) {
  const BuiltSettings built(settings);
  const std::lock_guard lock(settingsMutex_);
  if (!senderSettings_) throw std::runtime_error("settings: the sender is closed");
  http_->AnnounceUrls(built.Urls());
  Require(senderSettings_->SetSettings(built.Record()), "settings: the sender refuses them");
  urlStates_->SetUrls(built.Urls());
}

bool HostKit::Close() {
  // The sender's last Release ends a cycle in progress and moves what is in memory into the queues. After
  // that nobody arms the timer, and the HTTP client, which went with the sender, has ended its requests. Once
  // the timer's thread has ended too, no thread is left in the module's code.
  if (http_) http_->AllowRequests(false);
  senderSettings_.Reset();
  sender_.Reset();
  backoff_->SetTimer(nullptr);
  if (timer_) urlStates_->Close();
  drains_.Reset();
  timer_.Reset();
  if (locator_) locator_->Clear();
  locator_.Reset();
  try {
    if (queues_) queues_->Commit();
  } catch (const std::exception&) {
    // The store itself tries once more when it goes, and traces what is lost.
  }
  http_.Reset();
  queues_.Reset();
  const bool unloaded = !module_ || module_->TryUnload();
  module_.reset();
  return unloaded;
}

}  // namespace veld_report::host
