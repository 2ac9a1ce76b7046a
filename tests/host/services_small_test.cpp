// The small services: locator, allocator, hash and queue names, mode, notification, and texts of codes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/allocator/heap_allocator.h"
#include "host/base/code_text.h"
#include "host/base/text.h"
#include "host/hash/hash_service.h"
#include "host/hash/queue_name.h"
#include "host/locator/service_locator.h"
#include "host/mode/execution_mode.h"
#include "host/module/loaded_module.h"
#include "host/notification/function_notification.h"
#include "types/text_conversion.h"

namespace veld_report::host {
namespace {

using crypto::hash::IHashCalculator;
using crypto::hash::IHashCalculatorFactory;

std::uint32_t CountOf(zel::IObject* object) {
  object->AddRef();
  return object->Release();
}

// A service of two interfaces, so that a pointer to the wrong one is a different address.
class TwoFaced final : public HostObject<orvel::IExecutionModeProvider, zel::IAllocator> {
 public:
  std::uint32_t IsBackgroundDisabled() override { return 0; }
  void* Allocate(std::uint64_t) override { return nullptr; }
  zel::ResultCode ReservedAllocatorOperation() override { return zel::eNotImplemented; }
  void Free(void*) override {}
};

TEST(ServiceLocator, AnswersTheRegisteredInterfaceWithOneReference) {
  auto locator = MakeObject<ServiceLocator>();
  auto service = MakeObject<TwoFaced>();
  locator->Register<zel::IAllocator>(service);
  const std::uint32_t before = CountOf(static_cast<zel::IAllocator*>(service.Get()));
  zel::Ref<zel::IAllocator> found;
  EXPECT_EQ(zel::GetInterface(locator.Get(), found), zel::sOk);
  EXPECT_EQ(found.Get(), static_cast<zel::IAllocator*>(service.Get()));
  EXPECT_EQ(CountOf(found.Get()), before + 1);
  // The object offers this one too, but under this id nothing is registered.
  zel::Ref<orvel::IExecutionModeProvider> other;
  EXPECT_EQ(zel::GetInterface(locator.Get(), other), zel::eInterfaceNotSupported);
  EXPECT_FALSE(other);
}

TEST(ServiceLocator, ReplacingRemovingAndClearingReleaseTheOldService) {
  auto locator = MakeObject<ServiceLocator>();
  auto first = MakeObject<ExecutionMode>();
  auto second = MakeObject<ExecutionMode>();
  locator->Register<orvel::IExecutionModeProvider>(first);
  locator->Register<orvel::IExecutionModeProvider>(second);
  EXPECT_EQ(CountOf(first.Get()), 1u);
  EXPECT_EQ(CountOf(second.Get()), 2u);
  locator->Register<orvel::IExecutionModeProvider>({});
  EXPECT_EQ(CountOf(second.Get()), 1u);
  locator->Register<orvel::IExecutionModeProvider>(second);
  locator->Clear();
  EXPECT_EQ(CountOf(second.Get()), 1u);
}

TEST(HeapAllocator, CountsWhatIsOutFromAnyThread) {
  auto allocator = MakeObject<HeapAllocator>();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (std::uint64_t size = 0; size < 500; ++size) {
        void* const memory = allocator->Allocate(size);
        ASSERT_NE(memory, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t), 0u);
        std::fill_n(static_cast<char*>(memory), size, 'x');
        allocator->Free(memory);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(allocator->LiveBlocks(), 0u);
  void* const kept = allocator->Allocate(100);
  EXPECT_EQ(allocator->LiveBytes(), 100u);
  EXPECT_EQ(allocator->Allocate(UINT64_MAX - 4), nullptr);  // a sum that wraps must not give a small block
  EXPECT_EQ(allocator->LiveBlocks(), 1u);
  allocator->Free(kept);
  allocator->Free(nullptr);
  EXPECT_EQ(allocator->LiveBytes(), 0u);
}

// As the module does it: the object, its interface, pieces of the text, the digest as hexadecimal.
std::string Digest(std::vector<std::string> pieces) {
  zel::Ref<zel::IObject> object;
  EXPECT_EQ(MakeObject<HashService>()->CreateCalculator(100, object.Out()), zel::sOk);
  zel::Ref<IHashCalculator> calculator;
  EXPECT_EQ(object->QueryInterface(IHashCalculator::iid, calculator.OutVoid()), zel::sOk);
  for (const std::string& piece : pieces) {
    const auto* const begin = reinterpret_cast<const std::uint8_t*>(piece.data());
    const zel::ByteRange range{begin, begin + piece.size()};
    EXPECT_EQ(calculator->Update(&range), zel::sOk);
  }
  std::uint8_t digest[16] = {};
  EXPECT_EQ(calculator->Finish(digest), zel::sOk);
  EXPECT_EQ(calculator->Finish(digest), zel::eInvalidState);
  return ToStd(zel::HexText(digest, sizeof digest));
}

TEST(Hash, IsMd5AndNothingElse) {
  EXPECT_EQ(Digest({}), "d41d8cd98f00b204e9800998ecf8427e");  // the first two of RFC 1321's own examples
  EXPECT_EQ(Digest({"a", "", "bc"}), "900150983cd24fb0d6963f7d28e17f72");
  zel::Ref<zel::IObject> object;
  for (const std::uint32_t algorithm : {0u, 99u, 101u, UINT32_MAX}) {
    EXPECT_EQ(MakeObject<HashService>()->CreateCalculator(algorithm, object.Out()), zel::eNotSupported);
    EXPECT_FALSE(object);
  }
}

TEST(Hash, QueueNameIsTheDigestOfUtf16Units) {
  using namespace std::string_literals;
  EXPECT_EQ(QueueNameOfUrl("ab"), Digest({"a\0b\0"s}));
  EXPECT_EQ(QueueNameOfUrl("\xe2\x82\xac\xf0\x9f\x98\x80"), Digest({"\xac\x20\x3d\xd8\x00\xde"s}));
  EXPECT_THROW(QueueNameOfUrl("\xff"), std::invalid_argument);
}

TEST(ExecutionMode, IsASwitch) {
  auto mode = MakeObject<ExecutionMode>();
  EXPECT_EQ(mode->IsBackgroundDisabled(), 0u);
  mode->AllowBackground(false);
  EXPECT_NE(mode->IsBackgroundDisabled(), 0u);
}

TEST(FunctionNotification, HandsOnUrlAndCodeAndSwallowsWhatIsThrown) {
  std::vector<FinishedRequest> seen;
  auto service = MakeObject<FunctionNotification>([&](const FinishedRequest& request) {
    seen.push_back(request);
    if (seen.size() == 2) throw std::runtime_error("not the sender's affair");
  });
  const orvel::RequestNotification record{zel::string("VeldRep"), zel::eInvalidResult,
                                          zel::string("http://h")};
  EXPECT_EQ(service->OnRequestFinished(&record), zel::sOk);
  EXPECT_EQ(service->OnRequestFinished(&record), zel::eUnspecifiedError);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].url, "http://h");
  EXPECT_EQ(seen[0].result, zel::eInvalidResult);
  EXPECT_EQ(MakeObject<FunctionNotification>(nullptr)->OnRequestFinished(&record), zel::sOk);
}

TEST(CodeText, NamesTheCode) {
  EXPECT_EQ(CodeText(zel::eOutOfSpace), "0x80000062 Out of space");
  EXPECT_EQ(CodeText(zel::MakeResultCode(0x8000007f)), "0x8000007f");
}

TEST(LoadedModule, SaysWhyAFileIsNoModule) {
  const auto message = [](const std::string& path) {
    try {
      LoadedModule module(path);
    } catch (const std::runtime_error& error) {
      return std::string(error.what());
    }
    return std::string("loaded");
  };
  EXPECT_THAT(message("/nonexistent/libveld_report.so"),
              testing::HasSubstr("/nonexistent/libveld_report.so"));
  EXPECT_THAT(message("libm.so.6"), testing::HasSubstr("exports no function zelGetObjectFactory"));
}

}  // namespace
}  // namespace veld_report::host
