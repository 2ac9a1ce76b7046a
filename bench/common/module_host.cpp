#include "bench/common/module_host.h"

#include <cstdlib>
#include <stdexcept>

#include "host/base/text.h"
#include "host/json/json_storage.h"
#include "host/json/serializer.h"
#include "host/kit/module_path.h"
#include "host/kit/submission_watch.h"
#include "host/services/hash_service.h"
#include "host/services/heap_allocator.h"
#include "host/services/line_tracer.h"
#include "host/services/queue_name.h"
#include "host/services/timer_service.h"

namespace veld_report::bench {
namespace {

using orvel::veld_report::IVeldReportSenderConstruct;
using orvel::veld_report::IVeldReportSenderSettings;
using orvel::veld_report::SenderSettings;

void Require(zel::ResultCode code, const char* what) {
  if (zel::Failed(code)) throw std::runtime_error(std::string("bench: ") + what + " fails");
}

void FillSettings(const std::vector<std::string>& urls, std::uint32_t packetLimit, SenderSettings& settings) {
  settings.urls.append(urls.size());
  for (std::size_t i = 0; i < urls.size(); ++i) {
    settings.urls[i].url = zel::wstring(std::u16string(urls[i].begin(), urls[i].end()));
  }
  settings.packetLimit = packetLimit;
  settings.queueLimit = 1 << 20;
  settings.sendTimeout = 30;
}

zel::Ref<HeldTimer> MakeTimer(bool real) {
  zel::Ref<zel::ITimerService> inner;
  if (real) inner = host::MakeObject<host::TimerService>();
  return host::MakeObject<HeldTimer>(std::move(inner));
}

template <class I>
zel::Ref<I> Or(zel::Ref<I> given, zel::Ref<I> otherwise) {
  return given ? std::move(given) : std::move(otherwise);
}

}  // namespace

ModuleHost::ModuleHost(const ModuleHostOptions& options)
    : timer(MakeTimer(options.realTimer)),
      firstUrl_(options.urls.front()),
      packetLimit_(options.packetLimit),
      module_(host::LoadModule()) {
  host::ServiceLocator& locator = *locator_;
  locator.Register<zel::IAllocator>(
      Or<zel::IAllocator>(options.allocator, host::MakeObject<host::HeapAllocator>()));
  locator.Register<zel::ITracer>(Or<zel::ITracer>(
      options.tracer, host::MakeObject<host::LineTracer>(host::LineTracerOptions{.level = 0})));
  locator.Register<crypto::hash::IHashCalculatorFactory>(host::MakeObject<host::HashService>());
  locator.Register<orvel::IQueueFactory>(queues);
  locator.Register<network_services::IHttpClientFactory>(http);
  locator.Register<zel::ITimerService>(timer);
  locator.Register<orvel::IExecutionModeProvider>(mode);
  locator.Register<zel::IJsonStorageFactory>(Or(options.storages, host::CreateJsonStorageFactory()));
  locator.Register<zel::IStorageSerializer2>(
      Or(options.serializer, host::CreateWatchedSerializer(host::CreateSerializer())));

  const auto factory = module_->MakeFactory(locator_.Get());
  zel::Ref<IVeldReportSenderConstruct> construct;
  Require(factory->CreateInstance(locator_.Get(), IVeldReportSenderConstruct::iid, construct.OutVoid()),
          "CreateInstance");
  SenderSettings settings;
  FillSettings(options.urls, packetLimit_, settings);
  Require(construct->Construct(settings), "Construct");
  Require(construct->QueryInterface(orvel::veld_report::IVeldReportSender::iid, sender.OutVoid()),
          "QueryInterface");
}

std::string ModuleHost::QueueNameOf(const std::string& url) { return host::QueueNameOfUrl(url); }

ModuleHost::~ModuleHost() {
  sender.Reset();
  locator_->Clear();
}

void ModuleHost::SetUrls(const std::vector<std::string>& urls) {
  zel::Ref<IVeldReportSenderSettings> target;
  Require(sender->QueryInterface(IVeldReportSenderSettings::iid, target.OutVoid()), "QueryInterface");
  SenderSettings settings;
  FillSettings(urls, packetLimit_, settings);
  Require(target->SetSettings(settings), "SetSettings");
}

void ModuleHost::Drain() {
  mode->AllowBackground(false);
  timer->RunCycle();
  mode->AllowBackground(true);
}

std::vector<std::string> ManyUrls(std::size_t count) {
  std::vector<std::string> urls;
  urls.reserve(count);
  for (std::size_t i = 0; i < count; ++i) urls.push_back("http://127.0.0.1:9/in/" + std::to_string(i));
  return urls;
}

void* CountingAllocator::Allocate(std::uint64_t size) {
  ++blocks;
  return std::malloc(size);
}

void CountingAllocator::Free(void* memory) { std::free(memory); }

}  // namespace veld_report::bench
