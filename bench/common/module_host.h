// ModuleHost: a sender of the real module with the kit's services in front of it and null services behind it.
//
// A submission costs here what it costs in a program on the kit: locator, allocator, tracer, timer, JSON
// storage and serialiser are the kit's. The cycle runs when the benchmark says so, on its own thread, and
// ends in queues and a client that do nothing. The whole road is bench/road's affair.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "bench/common/null_services.h"
#include "contract/json.h"
#include "contract/sender.h"
#include "contract/tracer.h"
#include "host/locator/service_locator.h"
#include "host/mode/execution_mode.h"
#include "host/module/loaded_module.h"

namespace veld_report::bench {

struct ModuleHostOptions {
  std::vector<std::string> urls{"http://127.0.0.1:9/in"};
  std::uint32_t packetLimit = 100;
  // In place of the kit's services; null for those.
  zel::Ref<zel::IJsonStorageFactory> storages{};
  zel::Ref<zel::IStorageSerializer2> serializer{};
  zel::Ref<zel::IAllocator> allocator{};
  zel::Ref<zel::ITracer> tracer{};  // the kit's has every level off
  // Without it there is no thread but the caller's, for programs that count instructions.
  bool realTimer = true;
};

// Belongs to one thread, but for Submit and SubmitTo, which any may call.
class ModuleHost {
 public:
  // Throws std::runtime_error.
  explicit ModuleHost(const ModuleHostOptions& options = {});
  ModuleHost(const ModuleHost&) = delete;
  ModuleHost& operator=(const ModuleHost&) = delete;
  ~ModuleHost();

  void Submit(const zel::AnyPtr& record) { sender->SendStatistic(noConsumer_, record); }
  // Of the first url, and of any.
  std::string QueueName() const { return QueueNameOf(firstUrl_); }
  static std::string QueueNameOf(const std::string& url);
  void SetUrls(const std::vector<std::string>& urls);
  // A cycle whose gate is closed: memory goes into the queues and nothing is sent.
  void Drain();
  // A whole cycle. The first one must stand behind a submission.
  void RunCycle() { timer->RunCycle(); }

  zel::Ref<NullQueues> queues = host::MakeObject<NullQueues>();
  zel::Ref<NullHttp> http = host::MakeObject<NullHttp>();
  zel::Ref<HeldTimer> timer;
  zel::Ref<host::ExecutionMode> mode = host::MakeObject<host::ExecutionMode>();
  zel::Ref<orvel::veld_report::IVeldReportSender> sender;

 private:
  const zel::string noConsumer_;
  const std::string firstUrl_;
  const std::uint32_t packetLimit_;
  zel::Ref<host::ServiceLocator> locator_ = host::MakeObject<host::ServiceLocator>();
  host::LoadedModule module_;
};

// `count` urls, each different.
std::vector<std::string> ManyUrls(std::size_t count);

// An allocator that counts what it is asked for, on the process heap.
class CountingAllocator final : public host::HostObject<zel::IAllocator> {
 public:
  void* Allocate(std::uint64_t size) override;
  zel::ResultCode ReservedAllocatorOperation() override { return zel::eNotImplemented; }
  void Free(void* memory) override;

  std::uint64_t blocks = 0;
};

}  // namespace veld_report::bench
