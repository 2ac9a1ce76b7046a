// The queue service on SQLite: the contract, and what it promises beyond it.
#include "host/queue/queue_service.h"

#include <sys/stat.h>
#ifndef _WIN32
#include <unistd.h>
#endif

#include "tests/common/file_attributes.h"
#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

using QueueServiceTest = StoreTest;

TEST_F(QueueServiceTest, ADomainThatIsNoSafeFileNameIsRefused) {
  Open();
  zel::Ref<orvel::IQueueManager> manager;
  for (const std::string& unsafe : Strings{"", "..", "../x", "a b", "\xc3\xa4", std::string(65, 'x')})
    EXPECT_EQ(service->CreateQueueManager(zel::string(unsafe), manager.Out()), zel::eInvalidArgument)
        << unsafe;
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

TEST_F(QueueServiceTest, FilesAreTheOwnersWhateverTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{0777}}) {
    SCOPED_TRACE(mask);
    const auto before = umask(mask);
    options.folder = folder.Path() / ("umask" + std::to_string(mask)) / "";
    Open();
    Push("q", "secret");
    umask(before);
    EXPECT_TRUE(IsPrivate(options.folder));
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(options.folder)) {
      EXPECT_TRUE(IsPrivate(entry.path())) << entry.path();
      ++files;
    }
    EXPECT_GE(files, 4u) << "store, log, index of the log, lock";
  }
}

#ifndef _WIN32  // neither modes nor a superuser
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
  EXPECT_TRUE(IsPrivate(StorePath()));
  EXPECT_EQ(std::filesystem::status(folder.Path()).permissions(), std::filesystem::perms(0755));
  struct stat status {};
  ASSERT_EQ(stat(host::StoreFilePath(options.folder, "new").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, owner);
}
#endif

}  // namespace
}  // namespace veld_report::tests
