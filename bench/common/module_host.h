// ModuleHost: a sender of the real module, with the kit's services before it and null services after it.
//
// A submission costs the same here as in a program on the kit: locator, allocator, tracer, timer, JSON
// storage and serialiser are the kit's. A cycle runs when the benchmark calls for it, on the caller's thread,
// and ends in queues and a client that do nothing. The whole pipeline is measured in bench/end_to_end.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "bench/common/null_services.h"
#include "contract/json.h"
#include "contract/sender.h"
#include "contract/tracer.h"
#include "host/services/execution_mode.h"
#include "host/services/loaded_module.h"
#include "host/services/service_locator.h"

namespace veld_report::bench {

struct ModuleHostOptions {
  std::vector<std::string> urls{"http://127.0.0.1:9/in"};
  std::uint32_t packetLimit = 100;
  // Replace the kit's services if not null.
  zel::Ref<zel::IJsonStorageFactory> storages{};
  zel::Ref<zel::IStorageSerializer2> serializer{};
  zel::Ref<zel::IAllocator> allocator{};
  zel::Ref<zel::ITracer> tracer{};  // the kit's has all levels off
  // If false, there is no thread but the caller's, as programs that count instructions need.
  bool realTimer = true;
};

// For one thread, except Submit and SubmitTo, which any thread may call.
class ModuleHost {
 public:
  // Throws std::runtime_error.
  explicit ModuleHost(const ModuleHostOptions& options = {});
  ModuleHost(const ModuleHost&) = delete;
  ModuleHost& operator=(const ModuleHost&) = delete;
  ~ModuleHost();

  void Submit(const zel::AnyPtr& record) { sender->SendStatistic(noConsumer_, record); }
  // The queue name of the first url, or of any.
  std::string QueueName() const { return QueueNameOf(firstUrl_); }
  static std::string QueueNameOf(const std::string& url);
  void SetUrls(const std::vector<std::string>& urls);
  // A cycle with its gate closed: records move from memory into the queues and nothing is sent.
  void Drain();
  // A whole cycle. There must be a submission before the first one.
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
  const std::unique_ptr<host::LoadedModule> module_;
};

// `count` distinct urls.
std::vector<std::string> ManyUrls(std::size_t count);

// An allocator on the process heap that counts its blocks.
class CountingAllocator final : public host::HostObject<zel::IAllocator> {
 public:
  void* Allocate(std::uint64_t size) override;
  zel::ResultCode ReservedAllocatorOperation() override { return zel::eNotImplemented; }
  void Free(void* memory) override;

  std::uint64_t blocks = 0;
};

}  // namespace veld_report::bench
