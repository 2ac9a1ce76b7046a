// A whole host in memory: a locator with every service of the contract, all of them fakes of one world.
//
// When it goes, the test fails if anything of it is still held, a block of its allocator is out, a trace
// line is open, or an accepted request never got its completion.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "contract/execution_mode.h"
#include "contract/requests_notification.h"
#include "contract/service_locator.h"
#include "contract/signature.h"
#include "tests/fakes/fake_hash.h"
#include "tests/fakes/fake_http.h"
#include "tests/fakes/fake_json.h"
#include "tests/fakes/fake_memory.h"
#include "tests/fakes/fake_object.h"
#include "tests/fakes/fake_queues.h"
#include "tests/fakes/fake_timer.h"
#include "tests/fakes/fake_tracer.h"

namespace veld_report::fakes {

class FakeMode final : public FakeObject<orvel::IExecutionModeProvider> {
 public:
  explicit FakeMode(FakeWorld& world) : FakeObject(world, "ExecutionMode") {}
  // A scripted result is the answer.
  std::uint32_t IsBackgroundDisabled() override;
};

class FakeSignature final : public FakeObject<orvel::ISignatureProvider> {
 public:
  explicit FakeSignature(FakeWorld& world) : FakeObject(world, "SignatureProvider") {}
  // A scripted failure leaves the block in the vector all the same.
  zel::ResultCode Sign(const zel::ByteRange* bytes, zel::vector_t<std::uint8_t>* signatureBlock) override;
  std::string block = "\xfb\xff";
  std::string payload;  // of the last call
};

class FakeNotification final : public FakeObject<orvel::IRequestsNotification> {
 public:
  explicit FakeNotification(FakeWorld& world) : FakeObject(world, "Notification") {}
  zel::ResultCode OnRequestFinished(const orvel::RequestNotification* notification) override;
};

class FakeLocator final : public FakeObject<zel::IServiceLocator> {
 public:
  explicit FakeLocator(FakeWorld& world) : FakeObject(world, "Locator") {}

  zel::ResultCode GetInterface(zel::InterfaceId interfaceId, std::uint32_t reserved, void** out) override;
  // From here on a look-up of it, or the nth one, gives this code.
  void Lack(zel::InterfaceId interfaceId, zel::ResultCode code = zel::eNotFound);
  void LackNth(zel::InterfaceId interfaceId, int nth, zel::ResultCode code = zel::eNotFound);
  std::vector<zel::InterfaceId> TakeLookUps();

  // To be filled before anything is looked up.
  std::vector<zel::IObject*> services;

 private:
  std::mutex lock_;
  std::vector<zel::InterfaceId> lookUps_;
};

struct FakeHost {
  FakeHost();
  ~FakeHost();
  FakeHost(const FakeHost&) = delete;
  FakeHost& operator=(const FakeHost&) = delete;

  // Fails the test unless each service is held by this host alone and nothing of the module's is left.
  void ExpectNothingHeld();

  FakeWorld world;
  zel::Ref<FakeAllocator> allocator = MakeFake<FakeAllocator>(world);
  zel::Ref<FakeTracer> tracer = MakeFake<FakeTracer>(world);
  zel::Ref<FakeHashFactory> hash = MakeFake<FakeHashFactory>(world);
  zel::Ref<FakeQueueFactory> queues = MakeFake<FakeQueueFactory>(world);
  zel::Ref<FakeHttpClient> http = MakeFake<FakeHttpClient>(world);
  zel::Ref<FakeHttpClientFactory> httpFactory = MakeFake<FakeHttpClientFactory>(world, http.Get());
  zel::Ref<FakeTimer> timer = MakeFake<FakeTimer>(world);
  zel::Ref<FakeMode> mode = MakeFake<FakeMode>(world);
  zel::Ref<FakeSignature> signature = MakeFake<FakeSignature>(world);
  zel::Ref<FakeNotification> notification = MakeFake<FakeNotification>(world);
  zel::Ref<FakeJsonStorageFactory> jsonFactory = MakeFake<FakeJsonStorageFactory>(world);
  zel::Ref<FakeSerializer> serializer = MakeFake<FakeSerializer>(world);
  zel::Ref<FakeLocator> locator = MakeFake<FakeLocator>(world);
};

}  // namespace veld_report::fakes
