// The small services: allocator, hash and queue names, notification, tracer.
#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "contract/timer.h"
#include "host/base/resident_object.h"
#include "host/base/text.h"
#include "host/base/write_trace.h"
#include "host/services/function_notification.h"
#include "host/services/hash_service.h"
#include "host/services/heap_allocator.h"
#include "host/services/line_tracer.h"
#include "host/services/queue_name.h"
#include "host/services/service_locator.h"
#include "tests/common/file_attributes.h"
#include "tests/common/files.h"
#include "tests/common/fits.h"
#include "tests/common/temporary_folder.h"
#include "types/text_conversion.h"

namespace veld_report::host {
namespace {

TEST(HeapAllocator, CountsWhatIsOut) {
  const auto allocator = MakeObject<HeapAllocator>();
  void* const kept = allocator->Allocate(100);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(kept) % alignof(std::max_align_t), 0u);
  EXPECT_EQ(allocator->Allocate(UINT64_MAX - 4), nullptr);  // a sum that wraps must not give a small block
  EXPECT_EQ(allocator->LiveBytes(), 100u);
  EXPECT_EQ(allocator->LiveBlocks(), 1u);
  allocator->Free(kept);
  allocator->Free(nullptr);
  EXPECT_EQ(allocator->LiveBlocks(), 0u);
}

class Resident final : public ResidentObject<zel::IRunnable> {
 public:
  explicit Resident(std::atomic<int>& gone) : gone_(gone) {}
  ~Resident() override { ++gone_; }
  zel::ResultCode Run(void*) override { return gone_ == 0 ? zel::sOk : zel::eInvalidState; }

 private:
  std::atomic<int>& gone_;
};

// References are added on one thread and released on another, while tables come to hold the service and leave
// it.
TEST(ServiceLocator, AServiceLivesUntilItsLastReferenceIsGone) {
  std::atomic<int> gone = 0;
  zel::Ref<zel::IRunnable> service(MakeObject<Resident>(gone));
  const zel::Ref<ServiceLocator> locators[] = {MakeObject<ServiceLocator>(), MakeObject<ServiceLocator>()};
  std::mutex mutex;
  std::vector<zel::Ref<zel::IRunnable>> found;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&](const std::stop_token& ended) {
      for (unsigned turn = 0; !ended.stop_requested(); ++turn) {
        zel::Ref<zel::IRunnable> one;
        if (locators[turn % 2]->GetInterface(zel::IRunnable::iid, 0, one.OutVoid()) != zel::sOk) continue;
        EXPECT_EQ(one->Run(nullptr), zel::sOk);
        const std::lock_guard lock(mutex);
        found.push_back(std::move(one));
        if (found.size() > 100) found.erase(found.begin(), found.begin() + 50);
      }
    });
  }
  for (int round = 0; round < 300; ++round) {
    for (const auto& locator : locators) locator->Register<zel::IRunnable>(service);
    std::this_thread::yield();
    locators[round % 2]->Clear();
    if (round % 3 == 0) locators[1 - round % 2]->Register<zel::IRunnable>({});
  }
  threads.clear();
  locators[0]->Register<zel::IRunnable>(service);
  locators[0]->GetInterface(zel::IRunnable::iid, 0, found.emplace_back().OutVoid());
  service.Reset();
  for (const auto& locator : locators) locator->Clear();
  EXPECT_EQ(gone, 0) << "what was found outlives the tables";
  found.clear();
  EXPECT_EQ(gone, 1);
}

TEST(Hash, IsMd5AndQueueNamesHashUtf16Units) {
  const auto service = MakeObject<HashService>();
  zel::Ref<zel::IObject> object;
  for (const std::uint32_t algorithm : {0u, 99u, 101u, UINT32_MAX})
    EXPECT_EQ(service->CreateCalculator(algorithm, object.Out()), zel::eNotSupported);
  EXPECT_EQ(service->CreateCalculator(100, object.Out()), zel::sOk);
  zel::Ref<crypto::hash::IHashCalculator> calculator;
  EXPECT_EQ(object->QueryInterface(crypto::hash::IHashCalculator::iid, calculator.OutVoid()), zel::sOk);
  for (const std::string piece : {"a", "", "bc"}) {
    const auto* const begin = reinterpret_cast<const std::uint8_t*>(piece.data());
    const zel::ByteRange range{begin, begin + piece.size()};
    EXPECT_EQ(calculator->Update(&range), zel::sOk);
  }
  std::uint8_t digest[16] = {};
  EXPECT_EQ(calculator->Finish(digest), zel::sOk);
  EXPECT_EQ(calculator->Finish(digest), zel::eInvalidState);
  // From RFC 1321's own examples.
  EXPECT_EQ(ToStd(zel::HexText(digest, sizeof digest)), "900150983cd24fb0d6963f7d28e17f72");
  // md5sum of 61 00 3d d8 00 de.
  EXPECT_EQ(QueueNameOfUrl("a\xf0\x9f\x98\x80"), "c761c1dc158242c747fcc9fb18556334");
  EXPECT_THROW(QueueNameOfUrl("\xff"), std::invalid_argument);
}

TEST(FunctionNotification, SwallowsWhatTheFunctionThrows) {
  const auto service = MakeObject<FunctionNotification>(
      [](const FinishedRequest&) { throw std::runtime_error("not the sender's affair"); });
  const orvel::RequestNotification record{zel::string("VeldRep"), zel::sOk, zel::string("http://h")};
  EXPECT_EQ(service->OnRequestFinished(&record), zel::eUnspecifiedError);
}

// GoogleTest's own has no classes of characters on Windows.

class Tracer : public testing::Test {
 protected:
  std::vector<std::string> lines_;
  const tests::TemporaryFolder folder_;
  const std::string path_ = folder_ / "trace";
  const zel::Ref<LineTracer> tracer_ = MakeObject<LineTracer>(
      LineTracerOptions{.level = 700, .sink = [this](std::string_view line) { lines_.emplace_back(line); }});
};

TEST_F(Tracer, LineCarriesTimeAndLevelUnlessTheLevelIsOff) {
  WriteTrace(tracer_.Get(), 300, "veld_rep\tline\nbreak\x01");
  tracer_->SetLevel(300);
  char untouched = 'x';
  char* buffer = &untouched;
  EXPECT_NE(tracer_->AcquireBuffer(700, &buffer, 512), 0);
  EXPECT_EQ(buffer, &untouched);
  EXPECT_THAT(lines_, testing::ElementsAre(
                          tests::Fits("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z 300 "
                                      "veld_rep\tline\\\\x0abreak\\\\x01")));
}

TEST_F(Tracer, GrowthKeepsContentAndFailedGrowthTheBuffer) {
  char* buffer = nullptr;
  std::string text;
  for (std::uint64_t size = 512; size <= 65536; size *= 2) {
    ASSERT_EQ(tracer_->AcquireBuffer(text.empty() ? 700 : zel::ITracer::growLevel, &buffer, size), 0);
    std::fill(buffer + text.size(), buffer + size, 'a' + static_cast<char>(size / 1024));
    text.resize(size, 'a' + static_cast<char>(size / 1024));
  }
  EXPECT_NE(tracer_->AcquireBuffer(zel::ITracer::growLevel, &buffer, UINT64_MAX - 8), 0);
  EXPECT_EQ(tracer_->CommitBuffer(buffer, text.size()), 0);
  EXPECT_THAT(lines_, testing::ElementsAre(testing::EndsWith(" 700 " + text)));
}

TEST_F(Tracer, ManyWritersNeverMixLinesAndRotationLosesNone) {
  constexpr std::uint64_t limit = 100000;  // 800 lines of 157 bytes on average
  {
    const auto tracer = MakeObject<LineTracer>(LineTracerOptions{.path = path_, .limitBytes = limit});
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        for (int i = t * 200; i < (t + 1) * 200; ++i) {
          WriteTrace(tracer.Get(), 300, std::to_string(i) + std::string(i % 7 * 40u, '.') + "!");
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(tracer->DroppedLines(), 0u);
  }
  std::set<int> seen;
  for (const std::string& path : {path_ + ".1", path_}) {
    EXPECT_LE(std::filesystem::file_size(path), limit);
    for (const std::string& line : tests::ReadLines(path)) {
      ASSERT_THAT(line, tests::Fits("[-0-9T:.]+Z 300 [0-9]+\\.*!"));
      seen.insert(std::stoi(line.substr(line.find(" 300 ") + 5)));
    }
  }
  EXPECT_EQ(seen.size(), 800u);
}

TEST_F(Tracer, FileIsTheOwnersAloneAndNeverOutgrowsItsLimit) {
  // Nothing to move the full file to: it is emptied rather than left to grow.
  std::filesystem::create_directories(path_ + ".1/in the way");
  const auto tracer = MakeObject<LineTracer>(LineTracerOptions{.path = path_, .limitBytes = 1000});
  for (int i = 0; i < 100; ++i) WriteTrace(tracer.Get(), 300, std::string(100, 'x'));
  EXPECT_TRUE(tests::IsPrivate(path_));
  EXPECT_LE(std::filesystem::file_size(path_), 1000u);
}

}  // namespace
}  // namespace veld_report::host
