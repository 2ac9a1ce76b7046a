// The other services of the simulated host, and the locator that gives them out.
#pragma once

#include "contract/execution_mode.h"
#include "contract/hash.h"
#include "contract/json.h"
#include "contract/requests_notification.h"
#include "contract/service_locator.h"
#include "contract/signature.h"
#include "contract/timer.h"
#include "contract/tracer.h"
#include "tests/world/client.h"
#include "tests/world/host.h"
#include "tests/world/queues.h"
#include "types/allocator.h"

namespace veld_report::world {

class HostAllocator final : public Fake<zel::IAllocator> {
 public:
  using Fake::Fake;
  void* Allocate(std::uint64_t size) override;
  zel::ResultCode ReservedAllocatorOperation() override { return Reserved(); }
  void Free(void* memory) override;
};

class Tracer final : public Fake<zel::ITracer> {
 public:
  using Fake::Fake;
  zel::ResultCode AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) override;
  zel::ResultCode CommitBuffer(char* buffer, std::uint64_t length) override;

 private:
  std::vector<char> buffer_ = std::vector<char>(1 << 16);
  std::uint32_t level_ = 0;
};

class Calculator final : public Fake<crypto::hash::IHashCalculator> {
 public:
  using Fake::Fake;
  zel::ResultCode QueryInterface(zel::InterfaceId interfaceId, void** out) override;
  zel::ResultCode ReservedHashOperation0() override { return Reserved(); }
  zel::ResultCode Update(const zel::ByteRange* bytes) override;
  zel::ResultCode ReservedHashOperation2() override { return Reserved(); }
  zel::ResultCode ReservedHashOperation3() override { return Reserved(); }
  zel::ResultCode ReservedHashOperation4() override { return Reserved(); }
  zel::ResultCode Finish(std::uint8_t* digest) override;

 private:
  int url_ = -1;
};

class HashFactory final : public Fake<crypto::hash::IHashCalculatorFactory> {
 public:
  using Fake::Fake;
  zel::ResultCode CreateCalculator(std::uint32_t algorithm, zel::IObject** out) override;
};

// A sink that is armed while it runs is due, but runs no second time before its first Run has ended.
class Timer final : public Fake<zel::ITimerService> {
 public:
  using Fake::Fake;
  zel::ResultCode ReservedTimerOperation0() override { return Reserved(); }
  zel::ResultCode ReservedTimerOperation1() override { return Reserved(); }
  zel::ResultCode ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) override;
  zel::ResultCode DisarmTimer(zel::IRunnable* sink) override;
  zel::ResultCode CancelTimer(zel::IRunnable* sink) override;
};

class Mode final : public Fake<orvel::IExecutionModeProvider> {
 public:
  using Fake::Fake;
  std::uint32_t IsBackgroundDisabled() override;
};

class Signature final : public Fake<orvel::ISignatureProvider> {
 public:
  using Fake::Fake;
  zel::ResultCode Sign(const zel::ByteRange* payload, zel::vector_t<std::uint8_t>* signatureBlock) override;
};

class Notification final : public Fake<orvel::IRequestsNotification> {
 public:
  using Fake::Fake;
  zel::ResultCode OnRequestFinished(const orvel::RequestNotification* notification) override;
};

class JsonFactory final : public Fake<zel::IJsonStorageFactory> {
 public:
  using Fake::Fake;
  zel::ResultCode CreateJsonStorage(zel::IIO* stream, const zel::JsonStorageOptions* options,
                                    zel::IStorage** out) override;
};

class Serializer final : public Fake<zel::IStorageSerializer2> {
 public:
  using Fake::Fake;
  zel::ResultCode Serialize(const zel::AnyPtr* object, zel::IStorage* storage, std::uint32_t flag,
                            zel::IObject** context) override;
};

class Locator final : public Fake<zel::IServiceLocator> {
 public:
  using Fake::Fake;
  zel::ResultCode GetInterface(zel::InterfaceId interfaceId, std::uint32_t reserved, void** out) override;
};

// A producer's record, whose string is its whole JSON.
struct TextRecord {
  zel::string text;
};
extern const zel::SerObjDescriptor textRecord;

struct Services {
  explicit Services(Host& host);
  // Fails unless each service has its one reference.
  void CheckReferences(Host& host) const;

  HostAllocator allocator;
  Tracer tracer;
  HashFactory hash;
  QueueFactory queues;
  ClientFactory http;
  Timer timer;
  Mode mode;
  Signature signature;
  Notification notification;
  JsonFactory json;
  Serializer serializer;
  Locator locator;
};

}  // namespace veld_report::world
