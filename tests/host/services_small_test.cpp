// The small services: allocator, hash and queue names, notification.
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/base/text.h"
#include "host/services/function_notification.h"
#include "host/services/hash_service.h"
#include "host/services/heap_allocator.h"
#include "host/services/queue_name.h"
#include "types/text_conversion.h"

namespace veld_report::host {
namespace {

TEST(HeapAllocator, CountsWhatIsOutFromAnyThread) {
  const auto allocator = MakeObject<HeapAllocator>();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (std::uint64_t size = 0; size < 500; ++size) {
        void* const memory = allocator->Allocate(size);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t), 0u);
        std::fill_n(static_cast<char*>(memory), size, 'x');
        allocator->Free(memory);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  void* const kept = allocator->Allocate(100);
  EXPECT_EQ(allocator->Allocate(UINT64_MAX - 4), nullptr);  // a sum that wraps must not give a small block
  EXPECT_EQ(allocator->LiveBytes(), 100u);
  EXPECT_EQ(allocator->LiveBlocks(), 1u);
  allocator->Free(kept);
  allocator->Free(nullptr);
  EXPECT_EQ(allocator->LiveBlocks(), 0u);
}

// As the module does it: the object, its interface, pieces of the text, the digest as hexadecimal.
std::string Digest(const std::vector<std::string>& pieces) {
  zel::Ref<zel::IObject> object;
  EXPECT_EQ(MakeObject<HashService>()->CreateCalculator(100, object.Out()), zel::sOk);
  zel::Ref<crypto::hash::IHashCalculator> calculator;
  EXPECT_EQ(object->QueryInterface(crypto::hash::IHashCalculator::iid, calculator.OutVoid()), zel::sOk);
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

TEST(FunctionNotification, SwallowsWhatTheFunctionThrows) {
  const auto service = MakeObject<FunctionNotification>(
      [](const FinishedRequest&) { throw std::runtime_error("not the sender's affair"); });
  const orvel::RequestNotification record{zel::string("VeldRep"), zel::sOk, zel::string("http://h")};
  EXPECT_EQ(service->OnRequestFinished(&record), zel::eUnspecifiedError);
}

}  // namespace
}  // namespace veld_report::host
