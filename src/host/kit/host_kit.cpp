#include "host/kit/host_kit.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "host/base/redact.h"
#include "host/json/json_record.h"
#include "host/json/json_storage.h"
#include "host/json/serializer.h"
#include "host/kit/delivery_gate.h"
#include "host/kit/module_path.h"
#include "host/kit/no_http.h"
#include "host/kit/queue_views.h"
#include "host/kit/settings_builder.h"
#include "host/services/function_notification.h"
#include "host/services/hash_service.h"

namespace veld_report::host {
namespace {

// From a submission to the cycle that sends it, as the sender asks of its timer.
constexpr std::chrono::milliseconds usualPace{1000};

zel::Ref<QueueService> OpenQueues(QueueServiceOptions options, const zel::Ref<LineTracer>& tracer,
                                  std::shared_ptr<DeliveryGate> gate) {
  options.tracer = tracer;
  options.pacer = std::move(gate);
  // The queues go on filling while they are delivered.
  options.boundedVisits = true;
  auto queues = QueueService::Open(options);
  // Creates the default store now. The module would only do so in its first cycle, where nobody hears of a
  // full disk.
  if (!options.inspectOnly) queues->Commit();
  return queues;
}

// Called for completed requests: updates the state file, then calls the application's function, unless the
// request was never sent.
FunctionNotification::Function WatchRequests(const zel::Ref<HttpClientFactory>& http,
                                             std::shared_ptr<UrlStateFile> states,
                                             FunctionNotification::Function own) {
  return [http, states = std::move(states), own = std::move(own)](const FinishedRequest& request) {
    states->Update(request.url, *http);
    const EndingRequest* const ending = CurrentEndingRequest();
    if (!own || !ending || !ending->started) return;
    FinishedRequest whole = request;
    whole.endpoint = WithoutCredentials(request.url);
    whole.status = ending->status;
    whole.text = ending->failure;
    whole.records = static_cast<std::uint64_t>(ending->records.items);
    whole.bytes = static_cast<std::uint64_t>(ending->records.bytes);
    own(whole);
  };
}

zel::Ref<HttpClientFactory> MakeHttp(const HostKitOptions& given, const zel::Ref<LineTracer>& tracer,
                                     std::shared_ptr<DeliveryGate> gate) {
  HttpClientOptions options = given.http;
  options.tracer = tracer;
  options.clock = given.clock;
  options.takeRecords = TakePacketTally;
  options.onBackoff = [gate = std::move(gate), own = std::move(options.onBackoff)] {
    gate->OnBackoff();
    if (own) own();
  };
  return CreateHttpClientFactory(options);
}

// The sender asks for a second. Its memory is empty once its cycle has run, so it may run sooner.
TimerOptions DrainTimerOptions(const HostKitOptions& options, const zel::Ref<LineTracer>& tracer) {
  TimerOptions timer{options.clock, tracer};
  if (options.storeWithin) timer.maxDelay = *options.storeWithin;
  return timer;
}

std::optional<Ed25519Key> ReadKey(const std::optional<std::string>& file) {
  if (!file || file->empty()) return {};
  return Ed25519Key::PrivateFromFile(*file);
}

std::shared_ptr<RecordStamp> MakeStamp(const HostKitOptions& options) {
  auto stamp = std::make_shared<RecordStamp>(options.stamp, options.clock);
  stamp->SetCommon(RecordStamp::Prepare(options.settings.common));
  return stamp;
}

}  // namespace

// Everything that can be wrong with the options is found out before the store is opened, so that a mistake
// leaves no files.
HostKit::HostKit(const HostKitOptions& options)
    : storeWithin_(options.storeWithin),
      allocator_(MakeObject<HeapAllocator>()),
      tracer_(MakeObject<LineTracer>(options.trace)),
      gate_(std::make_shared<DeliveryGate>(options.clock)),
      settings_(std::make_unique<const BuiltSettings>(options.settings)),
      stamp_(MakeStamp(options)),
      module_(LoadModule(options.modulePath)),
      signer_(MakeObject<Ed25519Signer>(ReadKey(options.settings.signingKeyFile))),
      http_(MakeHttp(options, tracer_, gate_)),
      queues_(OpenQueues(options.queues, tracer_, gate_)),
      urlStates_(std::make_shared<UrlStateFile>(options.queues.folder)),
      timer_(MakeObject<TimerService>(TimerOptions{options.clock, tracer_})),
      drainTimer_(MakeObject<TimerService>(DrainTimerOptions(options, tracer_))),
      mode_(MakeObject<ExecutionMode>()),
      drains_(MakeObject<DrainWatch>(drainTimer_, [this] { OnDrained(); })),
      locator_(MakeObject<ServiceLocator>()),
      intakeLocator_(MakeObject<ServiceLocator>()),
      storeLimitBytes_(options.queues.storeLimitBytes == 0 ? UINT64_MAX : options.queues.storeLimitBytes) {
  gate_->Attach(http_.Get(), timer_.Get());
  try {
    if (options.onOpened) options.onOpened(*queues_);
    RegisterServices(options);
    MakeSenders(options.settings);
  } catch (...) {
    Close();
    throw;
  }
}

HostKit::~HostKit() { Close(); }

void HostKit::RegisterServices(const HostKitOptions& options) {
  const auto hashes = MakeObject<HashService>();
  const auto storages = CreateJsonStorageFactory();
  const auto serializer = CreateWatchedSerializer(CreateSerializer(), CreateSerializer(stamp_));
  const auto notification =
      MakeObject<FunctionNotification>(WatchRequests(http_, urlStates_, options.onRequestFinished));
  for (ServiceLocator* locator : {locator_.Get(), intakeLocator_.Get()}) {
    locator->Register<zel::IAllocator>(allocator_);
    locator->Register<zel::ITracer>(tracer_);
    locator->Register<crypto::hash::IHashCalculatorFactory>(hashes);
    locator->Register<zel::IJsonStorageFactory>(storages);
    locator->Register<zel::IStorageSerializer2>(serializer);
    locator->Register<orvel::IRequestsNotification>(notification);
  }
  zel::Ref<orvel::IQueueFactory> queues(queues_);
  if (options.wrapQueues) queues = options.wrapQueues(queues);
  intakeLocator_->Register<orvel::IQueueFactory>(QueuesToFill(queues, drains_));
  intakeLocator_->Register<network_services::IHttpClientFactory>(CreateNoHttp());
  intakeLocator_->Register<zel::ITimerService>(drainTimer_);
  intakeLocator_->Register<orvel::IExecutionModeProvider>(drains_);
  locator_->Register<orvel::IQueueFactory>(QueuesToEmpty(queues));
  locator_->Register<network_services::IHttpClientFactory>(http_);
  locator_->Register<zel::ITimerService>(timer_);
  locator_->Register<orvel::IExecutionModeProvider>(mode_);
  locator_->Register<orvel::ISignatureProvider>(signer_);
  intakeLocator_->Register<orvel::ISignatureProvider>(signer_);
}

void HostKit::MakeSenders(const KitSettings& settings) {
  const std::lock_guard lock(settingsMutex_);
  http_->AnnounceUrls(settings_->Urls());
  delivery_ = std::make_unique<ModuleSender>(*module_, *locator_, settings_->Record());
  intake_ = std::make_unique<ModuleSender>(*module_, *intakeLocator_, settings_->Record());
  http_->SetCodings(settings_->Codings());
  gate_->SetSettings(settings);
  urlStates_->SetUrls(settings_->Urls());
  SetRecordLimit(settings);
}

void HostKit::SetRecordLimit(const KitSettings& settings) {
  recordLimitBytes_ = std::min(std::uint64_t{settings.queueLimitKb} << 10, storeLimitBytes_);
}

Submission HostKit::Submit(std::string_view consumer, const zel::AnyPtr& record) {
  return intake_ ? intake_->Submit(consumer, record, recordLimitBytes_) : Submission{zel::eNotInitialized};
}

Submission HostKit::SubmitJson(std::string_view consumer, std::string_view text) {
  // The serialiser finds out whether it is valid.
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos || text[first] != '{') return {zel::eInvalidArgument};
  JsonRecord record{std::string(text)};
  return Submit(consumer, record.AsAny());
}

void HostKit::TriggerCycle() {
  if (intake_) intake_->Trigger();
}

// Inside a cycle of the intake. Without storeWithin such a cycle comes when it is time to send.
void HostKit::OnDrained() {
  const bool sendsNow = cycleWanted_.exchange(false) || !storeWithin_;
  if (IsSendingAllowed()) {
    if (sendsNow) {
      BeginCycle();
    } else {
      BeginCycleWithin(std::max(usualPace - *storeWithin_, std::chrono::milliseconds(0)));
    }
  }
  if (storeWithin_) queues_->Commit();
}

void HostKit::BeginCycleWithin(std::chrono::milliseconds delay) {
  // Only a sender that has run can run again without a submission.
  if (timer_->RunWithin(static_cast<std::uint32_t>(delay.count()))) return;
  if (!timer_->IsArmed() && delivery_) delivery_->Trigger();
}

void HostKit::BeginDrain() {
  cycleWanted_ = true;
  if (!drainTimer_->IsArmed()) TriggerCycle();
  drainTimer_->FireNow();
}

void HostKit::BeginCycle() {
  if (!timer_->IsArmed() && delivery_) delivery_->Trigger();
  timer_->FireNow();
}

// A Run that has just begun disarms its timer, and with it takes away what was asked for meanwhile. So it is
// asked for again until it comes.
bool HostKit::RunCycle(std::chrono::steady_clock::time_point deadline) {
  const auto repeat = [&](auto&& ask, auto&& comesBy) {
    for (;;) {
      ask();
      const auto now = std::chrono::steady_clock::now();
      if (comesBy(std::min(deadline, now + std::chrono::milliseconds(50)))) return true;
      if (now >= deadline) return false;
    }
  };
  const std::uint64_t drain = drainTimer_->RunsStarted();
  if (!repeat([&] { BeginDrain(); }, [&](auto end) { return drains_->WaitForDrain(drain, end); }))
    return false;
  const std::uint64_t cycle = timer_->RunsStarted();
  return repeat([&] { BeginCycle(); }, [&](auto end) { return timer_->WaitForRun(cycle, end); });
}

void HostKit::SkipSendInterval() { gate_->SkipInterval(); }

std::chrono::milliseconds HostKit::HeldBackFor(const std::string& url, std::int64_t waitingItems) const {
  return gate_->HeldBackFor(url, waitingItems);
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
  auto built = std::make_unique<const BuiltSettings>(settings);
  auto common = RecordStamp::Prepare(settings.common);
  std::shared_ptr<const Ed25519Signer::Signing> signing;
  if (auto key = ReadKey(settings.signingKeyFile))
    signing = std::make_shared<const Ed25519Signer::Signing>(*std::move(key));
  const std::lock_guard lock(settingsMutex_);
  if (!intake_ || !delivery_) throw std::runtime_error("settings: the sender is closed");
  http_->AnnounceUrls(built->Urls());
  delivery_->SetSettings(built->Record());
  try {
    intake_->SetSettings(built->Record());
  } catch (...) {
    http_->AnnounceUrls(settings_->Urls());
    delivery_->SetSettings(settings_->Record());
    throw;
  }
  if (settings.signingKeyFile) signer_->SetKey(std::move(signing));
  http_->SetCodings(built->Codings());
  gate_->SetSettings(settings);
  urlStates_->SetUrls(built->Urls());
  SetRecordLimit(settings);
  stamp_->SetCommon(std::move(common));
  settings_ = std::move(built);
}

bool HostKit::Close() {
  // The end of a sender ends a cycle in progress, and that of the first one moves what is in memory into the
  // queues. After that nobody arms a timer, and the HTTP client, which went with the second one, has ended
  // its requests. Once the timers' threads have ended too, no thread is left in the module's code.
  if (http_) http_->AllowRequests(false);
  if (queues_) queues_->StopWaiting();
  intake_.reset();
  delivery_.reset();
  gate_->Detach();
  if (timer_) urlStates_->Close();
  drains_.Reset();
  drainTimer_.Reset();
  timer_.Reset();
  for (zel::Ref<ServiceLocator>* locator : {&intakeLocator_, &locator_}) {
    if (*locator) (*locator)->Clear();
    locator->Reset();
  }
  try {
    if (queues_) queues_->Commit();
  } catch (const std::exception&) {
    // The store itself tries once more when it goes, and traces what is lost.
  }
  http_.Reset();
  queues_.Reset();
  signer_.Reset();
  const bool unloaded = !module_ || module_->TryUnload();
  module_.reset();
  return unloaded;
}

}  // namespace veld_report::host
