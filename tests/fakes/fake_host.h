// A whole host in memory: a locator with every service of the contract, all of them fakes of one world.
//
// When it goes, the test fails if anything of it is still held, a block of its allocator is out, a trace
// line is open, or an accepted request never got its completion.
#pragma once

#include <gmock/gmock.h>

#include <cstdio>
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
  std::uint32_t IsBackgroundDisabled() override {
    Use();
    return static_cast<std::uint32_t>(world().Enter("IsBackgroundDisabled"));
  }
};

class FakeSignature final : public FakeObject<orvel::ISignatureProvider> {
 public:
  explicit FakeSignature(FakeWorld& world) : FakeObject(world, "SignatureProvider") {}
  // A scripted failure leaves the block in the vector all the same.
  zel::ResultCode Sign(const zel::ByteRange* bytes, zel::vector_t<std::uint8_t>* signatureBlock) override {
    Use();
    if (!signatureBlock->empty()) Fault("SignatureProvider: the block isn't empty");
    if (signatureBlock->allocator.Service()) Fault("SignatureProvider: the block has an allocator");
    payload.assign(bytes->begin, bytes->end);
    signatureBlock->assign(reinterpret_cast<const std::uint8_t*>(block.data()), block.size());
    return world().Answer("Sign");
  }
  std::string block = "\xfb\xff";
  std::string payload;  // of the last call
};

class FakeNotification final : public FakeObject<orvel::IRequestsNotification> {
 public:
  explicit FakeNotification(FakeWorld& world) : FakeObject(world, "Notification") {}
  zel::ResultCode OnRequestFinished(const orvel::RequestNotification* notification) override {
    Use();
    const std::string detail = std::string(notification->source.View()) + " " +
                               std::to_string(notification->resultCode) + " " +
                               std::string(notification->url.View());
    return world().Answer("OnRequestFinished", detail);
  }
};

class FakeLocator final : public FakeObject<zel::IServiceLocator> {
 public:
  explicit FakeLocator(FakeWorld& world) : FakeObject(world, "Locator") {}

  zel::ResultCode GetInterface(zel::InterfaceId interfaceId, std::uint32_t reserved, void** out) override {
    Use();
    if (reserved != 0) Fault("Locator: the reserved argument isn't 0");
    {
      std::lock_guard guard(lock_);
      lookUps_.push_back(interfaceId);
    }
    if (const auto code = world().script.Enter(LookUpOperation(interfaceId)); code < 0) return code;
    const zel::ResultCode done = world().Done();
    const Script::HostsOwn queries;
    for (zel::IObject* service : services) {
      if (service->QueryInterface(interfaceId, out) == zel::sOk) return done;
    }
    return zel::eNotFound;
  }
  // From here on a look-up of it, or the nth one, gives this code.
  void Lack(zel::InterfaceId interfaceId, zel::ResultCode code = zel::eNotFound) {
    world().script.Fail(LookUpOperation(interfaceId), code, 1, Script::always);
  }
  void LackNth(zel::InterfaceId interfaceId, int nth, zel::ResultCode code = zel::eNotFound) {
    world().script.Fail(LookUpOperation(interfaceId), code, nth);
  }
  std::vector<zel::InterfaceId> TakeLookUps() {
    std::lock_guard guard(lock_);
    return std::exchange(lookUps_, {});
  }

  // To be filled before anything is looked up.
  std::vector<zel::IObject*> services;

 private:
  static std::string LookUpOperation(zel::InterfaceId interfaceId) {
    char text[32];
    std::snprintf(text, sizeof text, "GetInterface 0x%08x", interfaceId);
    return text;
  }

  std::mutex lock_;
  std::vector<zel::InterfaceId> lookUps_;
};

struct FakeHost {
  FakeHost() {
    locator->services = {allocator.Get(),    tracer.Get(),      hash.Get(),      queues.Get(),
                         httpFactory.Get(),  timer.Get(),       mode.Get(),      signature.Get(),
                         notification.Get(), jsonFactory.Get(), serializer.Get()};
  }
  ~FakeHost() { ExpectNothingHeld(); }
  FakeHost(const FakeHost&) = delete;
  FakeHost& operator=(const FakeHost&) = delete;

  // Fails the test unless each service is held by this host alone and nothing of the module's is left.
  void ExpectNothingHeld() {
    http->CheckAllCompleted();
    EXPECT_EQ(allocator->LiveBlocks(), 0u) << "blocks of the host's allocator are out";
    EXPECT_EQ(tracer->OpenBuffers(), 0u) << "a trace line was never committed";
    const std::vector<std::string> alive = world.ledger.Alive();
    EXPECT_THAT(alive, testing::SizeIs(13)) << "the services";
    EXPECT_THAT(alive, testing::Each(testing::EndsWith(" x1"))) << "held by the host alone";
  }

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
