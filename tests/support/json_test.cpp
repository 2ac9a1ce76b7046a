// What the tests of the module can't reach: a text that runs out of memory, and the look-up of a descriptor
// that the module always has.
#include <string>

#include "gtest/gtest.h"
#include "orvel_tools/json_helpers.h"
#include "orvel_tools/storage_serialize_helpers.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/fakes.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/util/rtl_impl/anyptr_helpers.h"

namespace veld_report::test {
namespace {

using zel::ResultCode;

constexpr ResultCode scripted = zel::MakeResultCode(0x80000777);

class LocationWithoutMemory final : public StackObject<zel::ISerializeErrorInfo> {
 public:
  ResultCode QueryInterface(zel::InterfaceId, void** out) override {
    AddRef();
    *out = this;
    return zel::sOk;
  }
  ResultCode ReservedErrorOperation() override { return zel::eNotImplemented; }
  ResultCode GetErrorLocation(zel::SerializeErrorLocation* location) override {
    location->objectName.append("Name");
    location->index = 5;
    return zel::sOk;
  }
};

TEST(SerializeFailureText, StandsAsFarAsMemoryWent) {
  LocationWithoutMemory context;
  const std::u16string whole = u"Serialize, Object name: Name, Field name: , Index: 5";
  for (std::int64_t n = 0; n < 100; ++n) {
    const std::int64_t before = LiveBlocks();
    FailAllocationAfter(n);
    bool complete = false;
    try {
      const zel::wstring text = orvel_tools::SerializeFailureText(&context);
      EXPECT_TRUE(whole.starts_with(text.View()));
      complete = text.View() == whole;
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(n, 0) << "only for the first word";
    }
    const bool failed = StopFailingAllocations();
    EXPECT_EQ(LiveBlocks(), before);
    EXPECT_NE(complete, failed);
    if (!failed) return;
  }
  FAIL() << "no end";
}

TEST(SerializeToJson, StreamWithoutMemoryIsASystemException) {
  FakeLocator locator;
  FailAllocationAfter(0);
  try {
    orvel_tools::SerializeToJson(&locator, zel::AnyPtr());
    ADD_FAILURE();
  } catch (const zel::SystemException& exception) {
    EXPECT_STREQ(exception.file, "orvel_tools/json_helpers");
    EXPECT_EQ(exception.line, 57);
    EXPECT_EQ(exception.code, zel::eOutOfMemory);
    EXPECT_EQ(exception.message.View(), u"CreateIOFromBuffer");
  }
  EXPECT_TRUE(StopFailingAllocations());
}

// A host's descriptors by serId.
template <class I>
class FakeMetaInfo : public StackObject<I> {
 public:
  explicit FakeMetaInfo(const zel::SerObjDescriptor* known) : known_(known) {}
  ResultCode GetDescriptor(std::uint32_t serId, const zel::SerObjDescriptor** out) override {
    EXPECT_EQ(serId, 0xe688adc8);
    EXPECT_GT(this->references, 0u);
    if (!known_) return scripted;
    *out = known_;
    return zel::sOk;
  }

 private:
  const zel::SerObjDescriptor* known_;
};
class FakeRegistry final : public FakeMetaInfo<zel::MetaInfoRegistry> {
 public:
  using FakeMetaInfo::FakeMetaInfo;
  ResultCode ReservedRegistryOperation() override {
    ADD_FAILURE() << "never called";
    return zel::eNotImplemented;
  }
};

TEST(LookupMessageDescriptor, AsksTheProviderAndThenTheRegistry) {
  const zel::SerObjDescriptor ofProvider{}, ofRegistry{};
  enum Service { missing, empty, filled };
  struct Case {
    Service provider, registry;
    const zel::SerObjDescriptor* found;
    std::int32_t line;
    ResultCode code;
  };
  for (const Case& c :
       {Case{filled, missing, &ofProvider, 0, 0}, Case{filled, filled, &ofProvider, 0, 0},
        Case{empty, filled, &ofRegistry, 0, 0}, Case{missing, filled, &ofRegistry, 0, 0},
        Case{missing, missing, nullptr, 41, FakeLocator::missing},
        Case{empty, missing, nullptr, 41, FakeLocator::missing}, Case{missing, empty, nullptr, 43, scripted},
        Case{empty, empty, nullptr, 43, scripted}}) {
    FakeMetaInfo<zel::MetaInfoProvider> provider(c.provider == filled ? &ofProvider : nullptr);
    FakeRegistry registry(c.registry == filled ? &ofRegistry : nullptr);
    FakeLocator locator;
    if (c.provider != missing) locator.Put<zel::MetaInfoProvider>(&provider);
    if (c.registry != missing) locator.Put<zel::MetaInfoRegistry>(&registry);
    const zel::SerObjDescriptor* found = nullptr;
    try {
      found = zel::LookupMessageDescriptor(&locator);
      EXPECT_EQ(c.line, 0);
    } catch (const zel::InvalidResultException& exception) {
      EXPECT_STREQ(exception.file, "zel/util/rtl_impl/anyptr_helpers");
      EXPECT_EQ(exception.line, c.line);
      EXPECT_EQ(exception.code, c.code);
      EXPECT_EQ(exception.message.View(), c.line == 41
                                              ? u"No meta info provider"
                                              : u"This structure is not registered at meta info provider");
    }
    EXPECT_EQ(found, c.found);
    EXPECT_EQ(provider.references + registry.references, 0u);
  }
}

}  // namespace
}  // namespace veld_report::test
