// Every allocation of a whole life fails once: nothing crashes, nothing leaks, and the module can be
// unloaded.

#include <new>

#include "tests/module/module_heap.h"
#include "tests/module/sender_test.h"

namespace veld_report::tests {
namespace {

class AllocationTest : public testing::Test {
 protected:
  // A life from the factory to the last Release, with two cycles, a refused packet and new settings. It goes
  // as far as the failure lets it.
  void Live(fakes::FakeHost& host) {
    const SenderSettings settings = MakeSettings({.urls = {urlA, urlB}, .consumers = {"x", longName}});
    Sender life;
    if (life.Create(module, host.locator.Get()) < 0) return;
    if (life.construct->Construct(settings) < 0) return;
    for (int round = 0; round < 2; ++round) {
      for (int i = 0; i < 3; ++i) EXPECT_EQ(life.Send(longName), zel::sOk);
      EXPECT_EQ(life.Send(longName, longName), zel::sOk);
      host.http->Answer(HttpAnswer::Status(500));
      host.timer->Fire();
      try {
        life.settings->SetSettings(MakeSettings({.urls = {urlA}, .queueLimit = 3}));
      } catch (const std::bad_alloc&) {
        // The one operation that lets it pass.
      }
    }
    EXPECT_EQ(life.Send("{}"), zel::sOk);
  }

  const std::string longName = "a consumer whose name is longer than a string's own buffer";
  const ModuleLibrary& module = ModuleLibrary::Get();
};

TEST_F(AllocationTest, TheHostsAllocatorRunsDry) {
  for (int n = 1;; ++n) {
    SCOPED_TRACE("allocation " + std::to_string(n));
    fakes::FakeHost host;
    host.allocator->FailNth(n);
    Live(host);
    host.ExpectNothingHeld();
    ASSERT_EQ(module.canUnload(), zel::sOk);
    if (HasFailure() || host.allocator->Allocations() < n) {
      EXPECT_GT(n, 5);
      return;
    }
  }
}

TEST_F(AllocationTest, TheProcessHeapRunsDry) {
  if (!ModuleHeap::Available()) GTEST_SKIP() << "the sanitizer has a heap of its own";
  for (int n = 1;; ++n) {
    SCOPED_TRACE("allocation " + std::to_string(n));
    fakes::FakeHost host;
    ModuleHeap::Begin(reinterpret_cast<const void*>(module.canUnload), n);
    EXPECT_NO_THROW(Live(host));
    EXPECT_EQ(ModuleHeap::LiveBlocks(), 0);
    ModuleHeap::End();
    host.ExpectNothingHeld();
    ASSERT_EQ(module.canUnload(), zel::sOk);
    if (HasFailure() || ModuleHeap::Allocations() < n) {
      EXPECT_GT(n, 50);
      return;
    }
  }
}

}  // namespace
}  // namespace veld_report::tests
