// The queue service on SQLite: the contract, and what it promises beyond it.
#include "host/queue/queue_service.h"

#include <gmock/gmock.h>

#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

using testing::HasSubstr;

using QueueServiceTest = StoreTest;

TEST_F(QueueServiceTest, ADomainThatIsNoSafeFileNameIsRefused) {
  Open();
  zel::Ref<orvel::IQueueManager> manager;
  for (const std::string& unsafe : Strings{"", "..", "../x", "a b", "\xc3\xa4", std::string(65, 'x')})
    EXPECT_EQ(service->CreateQueueManager(zel::string(unsafe), manager.Out()), zel::eInvalidArgument)
        << unsafe;
}

TEST_F(QueueServiceTest, RefusalsToOpenSayWhatToDo) {
  Open();
  const auto producer = Producer("q");
  service.Reset();
  EXPECT_THAT(OpenError(), HasSubstr("in use by this process")) << "a producer keeps the folder locked";
  options.folder = "/proc/no such place/store";
  EXPECT_THAT(OpenError(), HasSubstr("choose another one"));
  options.folder.clear();
  EXPECT_THAT(OpenError(), HasSubstr("name one"));
}

// What it shows stands in courses/store/look_shows_what_another_process_has.course.
TEST_F(QueueServiceTest, ALookChangesNothing) {
  Open();
  Push("q", "first");
  host::QueueServiceOptions look = options;
  look.inspectOnly = true;
  const auto inspector = host::QueueService::Open(look);
  const zel::string name("q");
  zel::Ref<orvel::IQueueProducer> producer;
  zel::Ref<orvel::IAckConsumer> reader;
  EXPECT_EQ(inspector->CreateProducer(zel::string(domain), name, 1, producer.Out()), zel::eNotSupported);
  EXPECT_EQ(inspector->CreateAckConsumer(zel::string(domain), name, reader.Out()), zel::eNotSupported);
  EXPECT_THROW(inspector->Forget(), host::StoreError);
  EXPECT_THROW(inspector->ClearQueue("q"), host::StoreError);
  EXPECT_EQ(Waiting("q"), Strings{"first"});
}

TEST_F(QueueServiceTest, TheLogIsWrittenBackWhilePushingGoesOn) {
  constexpr std::uintmax_t mib = 1 << 20;
  Open();
  const auto producer = Producer("q");
  for (std::uintmax_t pushed = 0; pushed < 32 * mib; pushed += 1024) {
    ASSERT_EQ(PushText(*producer, std::string(1024, 'x')), zel::sOk);
  }
  EXPECT_LE(std::filesystem::file_size(StorePath().string() + "-wal"), 9 * mib);
  EXPECT_GE(std::filesystem::file_size(StorePath()), 24 * mib);
}

TEST_F(QueueServiceTest, RoomThatAnOutageTookIsGivenBack) {
  Open();
  Push("q", "first");
  const std::string large(500'000, 'x');
  for (int i = 0; i < 50; ++i) Push("large", large);
  ASSERT_TRUE(service->Commit());
  Open();
  EXPECT_GT(std::filesystem::file_size(StorePath()), 23u << 20) << "full of items";
  {
    const auto reader = Reader("large");
    for (const ReadItem& item : ReadAll(*reader)) reader->Ack(&item.token);
  }
  EXPECT_TRUE(Eventually([&] { return std::filesystem::file_size(StorePath()) < 1 << 20; }));
  EXPECT_EQ(Waiting("q"), Strings{"first"});
  EXPECT_EQ(Findings(), Strings());
}

}  // namespace
}  // namespace veld_report::tests
