#include "contract/descriptor.h"
#include "formats/message_descriptors.h"
#include "fuzz/failing_allocator.h"
#include "gtest/gtest.h"

namespace veld_report::tests {
namespace {

using orvel::veld_report::Message;

TEST(RecordCopyTest, OneThatFailsGivesItsMemoryBack) {
  const auto ofText = host::MakeObject<fuzz::FailingAllocator>();
  const auto ofCopy = host::MakeObject<fuzz::FailingAllocator>();
  Message source;
  source.payload = zel::string("a text that is too long for the buffer inside", ofText.Get());
  zel::SerObjDescriptorHelper& helper = *zel::StaticDescriptor<Message>::pointer->helper;
  int freed = 0;
  ofCopy->onFree = [&](const void*) { ++freed; };
  ofText->fail = true;
  EXPECT_THROW(helper.CreateNew(&source, ofCopy.Get()), std::bad_alloc);
  EXPECT_EQ(freed, 1);
}

}  // namespace
}  // namespace veld_report::tests
