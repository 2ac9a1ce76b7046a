#include "tests/fakes/fake_host.h"

#include <gmock/gmock.h>

#include <cstdio>

namespace veld_report::fakes {
namespace {

std::string LookUpOperation(zel::InterfaceId interfaceId) {
  char text[32];
  std::snprintf(text, sizeof text, "GetInterface 0x%08x", interfaceId);
  return text;
}

}  // namespace

std::uint32_t FakeMode::IsBackgroundDisabled() {
  Use();
  return static_cast<std::uint32_t>(world().Enter("IsBackgroundDisabled"));
}

zel::ResultCode FakeSignature::Sign(const zel::ByteRange* payload,
                                    zel::vector_t<std::uint8_t>* signatureBlock) {
  Use();
  if (!signatureBlock->empty()) Fault("SignatureProvider: the block isn't empty");
  if (signatureBlock->allocator.Service()) Fault("SignatureProvider: the block has an allocator");
  payloads.emplace_back(payload->begin, payload->end);
  signatureBlock->assign(reinterpret_cast<const std::uint8_t*>(block.data()), block.size());
  return world().Enter("Sign");
}

zel::ResultCode FakeNotification::OnRequestFinished(const orvel::RequestNotification* notification) {
  Use();
  const std::string detail = std::string(notification->source.View()) + " " +
                             std::to_string(notification->resultCode) + " " +
                             std::string(notification->url.View());
  return world().Enter("OnRequestFinished", detail);
}

zel::ResultCode FakeLocator::GetInterface(zel::InterfaceId interfaceId, std::uint32_t reserved, void** out) {
  Use();
  if (reserved != 0) Fault("Locator: the reserved argument isn't 0");
  zel::IObject* service = nullptr;
  {
    std::lock_guard guard(lock_);
    lookUps_.push_back(interfaceId);
    const auto found = services_.find(interfaceId);
    if (found != services_.end()) service = found->second;
  }
  if (const auto code = world().script.Enter(LookUpOperation(interfaceId)); code < 0) return code;
  return service ? service->QueryInterface(interfaceId, out) : zel::eNotFound;
}

void FakeLocator::Offer(zel::InterfaceId interfaceId, zel::IObject* service) {
  std::lock_guard guard(lock_);
  services_[interfaceId] = service;
}

void FakeLocator::Lack(zel::InterfaceId interfaceId, zel::ResultCode code) {
  world().script.Fail(LookUpOperation(interfaceId), code, 1, Script::always);
}

void FakeLocator::LackNth(zel::InterfaceId interfaceId, int nth, zel::ResultCode code) {
  world().script.Fail(LookUpOperation(interfaceId), code, nth);
}

std::vector<zel::InterfaceId> FakeLocator::TakeLookUps() {
  std::lock_guard guard(lock_);
  return std::exchange(lookUps_, {});
}

FakeHost::FakeHost()
    : allocator(MakeFake<FakeAllocator>(world)),
      tracer(MakeFake<FakeTracer>(world)),
      hash(MakeFake<FakeHashFactory>(world)),
      queues(MakeFake<FakeQueueFactory>(world)),
      http(MakeFake<FakeHttpClient>(world)),
      httpFactory(MakeFake<FakeHttpClientFactory>(world, http.Get())),
      timer(MakeFake<FakeTimer>(world)),
      mode(MakeFake<FakeMode>(world)),
      signature(MakeFake<FakeSignature>(world)),
      notification(MakeFake<FakeNotification>(world)),
      jsonFactory(MakeFake<FakeJsonStorageFactory>(world)),
      serializer(MakeFake<FakeSerializer>(world)),
      locator(MakeFake<FakeLocator>(world)) {
  locator->Offer(zel::IAllocator::iid, allocator.Get());
  locator->Offer(zel::ITracer::iid, tracer.Get());
  locator->Offer(crypto::hash::IHashCalculatorFactory::iid, hash.Get());
  locator->Offer(orvel::IQueueFactory::iid, queues.Get());
  locator->Offer(network_services::IHttpClientFactory::iid, httpFactory.Get());
  locator->Offer(zel::ITimerService::iid, timer.Get());
  locator->Offer(orvel::IExecutionModeProvider::iid, mode.Get());
  locator->Offer(orvel::ISignatureProvider::iid, signature.Get());
  locator->Offer(orvel::IRequestsNotification::iid, notification.Get());
  locator->Offer(zel::IJsonStorageFactory::iid, jsonFactory.Get());
  locator->Offer(zel::IStorageSerializer2::iid, serializer.Get());
}

FakeHost::~FakeHost() { ExpectNothingHeld(); }

std::vector<const LedgerEntry*> FakeHost::Services() const {
  return {allocator.Get(),    tracer.Get(),      hash.Get(),      queues.Get(),    http.Get(),
          mode.Get(),         httpFactory.Get(), timer.Get(),     signature.Get(), locator.Get(),
          notification.Get(), jsonFactory.Get(), serializer.Get()};
}

void FakeHost::ExpectNothingHeld() {
  http->CheckAllCompleted();
  EXPECT_EQ(allocator->LiveBlocks(), 0u) << "blocks of the host's allocator are out";
  EXPECT_EQ(tracer->OpenBuffers(), 0) << "a trace line was never committed";
  std::vector<std::string> expected;
  for (const LedgerEntry* service : Services()) expected.push_back(service->Name() + " x1");
  EXPECT_THAT(world.ledger.Alive(), ::testing::UnorderedElementsAreArray(expected));
}

}  // namespace veld_report::fakes
