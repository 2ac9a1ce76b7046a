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

zel::ResultCode FakeSignature::Sign(const zel::ByteRange* bytes,
                                    zel::vector_t<std::uint8_t>* signatureBlock) {
  Use();
  if (!signatureBlock->empty()) Fault("SignatureProvider: the block isn't empty");
  if (signatureBlock->allocator.Service()) Fault("SignatureProvider: the block has an allocator");
  payload.assign(bytes->begin, bytes->end);
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
  {
    std::lock_guard guard(lock_);
    lookUps_.push_back(interfaceId);
  }
  if (const auto code = world().script.Enter(LookUpOperation(interfaceId)); code < 0) return code;
  for (zel::IObject* service : services) {
    if (service->QueryInterface(interfaceId, out) == zel::sOk) return zel::sOk;
  }
  return zel::eNotFound;
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

FakeHost::FakeHost() {
  locator->services = {allocator.Get(),    tracer.Get(),      hash.Get(),      queues.Get(),
                       httpFactory.Get(),  timer.Get(),       mode.Get(),      signature.Get(),
                       notification.Get(), jsonFactory.Get(), serializer.Get()};
}

FakeHost::~FakeHost() { ExpectNothingHeld(); }

void FakeHost::ExpectNothingHeld() {
  http->CheckAllCompleted();
  EXPECT_EQ(allocator->LiveBlocks(), 0u) << "blocks of the host's allocator are out";
  EXPECT_EQ(tracer->OpenBuffers(), 0u) << "a trace line was never committed";
  const std::vector<std::string> alive = world.ledger.Alive();
  EXPECT_THAT(alive, testing::SizeIs(13)) << "the services";
  EXPECT_THAT(alive, testing::Each(testing::EndsWith(" x1"))) << "held by the host alone";
}

}  // namespace veld_report::fakes
