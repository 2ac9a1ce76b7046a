// The queue service on SQLite: the contract, and what it promises beyond it.
#include "host/queue/queue_service.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>

#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

using testing::HasSubstr;

class QueueServiceTest : public StoreTest {
 protected:
  static std::filesystem::perms Mode(const std::filesystem::path& path) {
    return std::filesystem::status(path).permissions();
  }
  static constexpr auto ownersFile = std::filesystem::perms(0600);
};

TEST_F(QueueServiceTest, FilesAreTheOwnersWhateverTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{0777}}) {
    SCOPED_TRACE(mask);
    const mode_t before = umask(mask);
    options.folder = folder.Path() / ("umask" + std::to_string(mask)) / "";
    Open();
    Push("q", "secret");
    umask(before);
    EXPECT_EQ(Mode(options.folder), std::filesystem::perms(0700));
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(options.folder)) {
      EXPECT_EQ(Mode(entry.path()), ownersFile) << entry.path();
      ++files;
    }
    EXPECT_GE(files, 4u) << "store, log, index of the log, lock";
  }
}

TEST_F(QueueServiceTest, AnExistingFolderKeepsItsModeAStoreIsTheOwners) {
  constexpr uid_t nobody = 65534;
  ASSERT_EQ(chmod(folder.Path().c_str(), 0755), 0);
  std::ofstream{StorePath()};
  ASSERT_EQ(chmod(StorePath().c_str(), 0644), 0);
  const uid_t owner = geteuid() == 0 ? nobody : geteuid();  // only the superuser can make files for others
  ASSERT_EQ(chown(folder.Path().c_str(), owner, getegid()), 0);
  Open();
  EXPECT_TRUE(Producer("q"));
  domain = "new";
  EXPECT_TRUE(Producer("q"));
  EXPECT_EQ(Mode(StorePath()), ownersFile);
  EXPECT_EQ(Mode(folder.Path()), std::filesystem::perms(0755));
  struct stat status {};
  ASSERT_EQ(stat(host::StoreFilePath(options.folder, "new").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, owner);
}

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

// What is read ahead may hold items whose deletion is buffered.
TEST_F(QueueServiceTest, WhatWasAcknowledgedStaysGoneWhenItsGroupIsWritten) {
  options.commitOperations = 10'000;
  options.commitDelay = std::chrono::hours(1);
  Open();
  const auto producer = Producer("q");
  for (std::size_t i = 0; i < 300; ++i) PushText(*producer, Numbered(i));
  const auto first = Reader("q");
  const auto held = ReadAll(*first, 200);  // more than is read ahead at once
  for (std::size_t i = 5; i < 60; ++i) first->Ack(&held[i].token);
  for (std::size_t i = 0; i < 2; ++i) first->ReturnItem(&held[i].token);
  const auto second = Reader("q");
  EXPECT_EQ(ReadOne(*second)->bytes, Numbered(0));
  service->Commit();
  EXPECT_EQ(ReadOne(*second)->bytes, Numbered(1));
  EXPECT_EQ(ReadOne(*second)->bytes, Numbered(200));
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

TEST_F(QueueServiceTest, LedgerBalancesWhileManyThreadsPushEvictAndDeliver) {
  Open();
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 3; ++thread) {
    threads.emplace_back([&] {
      const auto producer = Producer("q", 2000);
      for (int i = 0; i < 1000; ++i) {
        EvictAndPush(*producer, "q", std::string(20, 'x'));
        if (i % 20 != 0) continue;
        const auto reader = Reader("q");
        for (const ReadItem& item : ReadAll(*reader, 10)) reader->Ack(&item.token);
      }
    });
  }
  for (int i = 0; i < 200; ++i) Ledger();  // expects the balance
  threads.clear();
  Open();
  EXPECT_EQ(Ledger().accepted.items, 3000);
  EXPECT_EQ(Ledger().waiting.items, static_cast<std::int64_t>(Waiting("q").size()));
}

}  // namespace
}  // namespace veld_report::tests
