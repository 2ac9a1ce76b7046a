// A host's Free or Release that throws: whoever gives memory or a reference back has done so all the same,
// and goes on.

#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string_view>

#include "contract/descriptor.h"
#include "formats/message_descriptors.h"
#include "gtest/gtest.h"
#include "types/allocator.h"
#include "types/basic_string.h"
#include "types/vector.h"

namespace veld_report::tests {
namespace {

using orvel::veld_report::Message;
using zel::string;
using Texts = zel::vector_t<string>;

constexpr std::string_view longText = "a text that is too long for the buffer inside";

// Its work done, each call that gives something back throws.
class ThrowingAllocator final : public zel::IAllocator {
 public:
  std::uint32_t AddRef() override { return ++references; }
  std::uint32_t Release() override {
    --references;
    throw std::runtime_error("Release");
  }
  zel::ResultCode QueryInterface(zel::InterfaceId, void**) override { return zel::eInterfaceNotSupported; }
  void* Allocate(std::uint64_t size) override {
    if (failAt > 0 && --failAt == 0) return nullptr;
    ++blocks;
    return std::malloc(size);
  }
  zel::ResultCode ReservedAllocatorOperation() override { return zel::eNotImplemented; }
  void Free(void* memory) override {
    --blocks;
    std::free(memory);
    if (onFree) onFree();
    throw std::runtime_error("Free");
  }

  std::uint32_t references = 1;
  int blocks = 0;
  int failAt = 0;
  std::function<void()> onFree;
};

struct Case {
  const char* what;
  std::function<void(ThrowingAllocator&)> run;
};

const Case cases[] = {
    {"a string grows",
     [](ThrowingAllocator& host) {
       string text(longText, &host);
       text.reserve_extra(100);
       text.append(longText);
       text.insert(text.data + 1, 80);
       text.resize_extra_at(0, 500);
       EXPECT_EQ(host.blocks, 1);
     }},
    {"a string's block is replaced",
     [](ThrowingAllocator& host) {
       string text(longText, &host);
       text = string("of the process heap");
       EXPECT_EQ(host.references, 1u);
       text = string(longText, &host);
       text = string("inline", &host);
       EXPECT_EQ(text.View(), "inline");
     }},
    {"a vector grows",
     [](ThrowingAllocator& host) {
       Texts texts(&host);
       for (int i = 0; i < 3; ++i) texts.push_back(string(longText, &host));
       texts.append(5);
       EXPECT_EQ(texts.size(), 8u);
       EXPECT_EQ(texts[2].View(), longText);
       EXPECT_EQ(host.blocks, 4);
     }},
    {"a vector's growth fails",
     [](ThrowingAllocator& host) {
       const string text(longText, &host);
       Texts texts(&host);
       host.failAt = 2;
       EXPECT_THROW(texts.push_back(text), std::bad_alloc);
       EXPECT_EQ(texts.size(), 0u);
     }},
    {"a vector's content is replaced",
     [](ThrowingAllocator& host) {
       zel::vector_t<int> numbers(&host);
       const int many[9] = {1, 2, 3};
       numbers.assign(many, 1);
       numbers.assign(many, 9);
       numbers = zel::vector_t<int>();
       EXPECT_EQ(host.blocks, 0);
     }},
    {"a record's copy fails",
     [](ThrowingAllocator& host) {
       Message source;
       source.payload = string(longText, &host);
       host.failAt = 2;
       zel::SerObjDescriptorHelper& helper = *zel::StaticDescriptor<Message>::pointer->helper;
       EXPECT_THROW(helper.CreateNew(&source, &host), std::bad_alloc);
       EXPECT_EQ(host.blocks, 1);
     }},
};

TEST(CleanUpTest, GoesOnThoughTheHostThrows) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ThrowingAllocator host;
    EXPECT_NO_THROW(c.run(host));
    EXPECT_EQ(host.blocks, 0);
    EXPECT_EQ(host.references, 1u);
  }
}

TEST(CleanUpTest, AFreeFindsTheVectorWhole) {
  ThrowingAllocator host;
  zel::vector_t<int> numbers(&host);
  const int more[] = {7, 8, 9};
  int frees = 0;
  std::uint64_t size = 1, capacity = 2;
  host.onFree = [&] {
    ++frees;
    EXPECT_EQ(numbers.size(), size);
    EXPECT_EQ(numbers.capacity(), capacity);
    EXPECT_TRUE(size < 2 || numbers[1] == 6);
  };
  numbers.push_back(5);
  size = 2;
  numbers.push_back(6);
  EXPECT_EQ(frees, 1);
  size = 0;
  capacity = 3;
  numbers.assign(more, 3);
  EXPECT_EQ(frees, 2);
  host.onFree = nullptr;
}

}  // namespace
}  // namespace veld_report::tests
