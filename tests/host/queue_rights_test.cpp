// Whose a store's folder and files are, where rights are modes.
#include <sys/stat.h>
#include <unistd.h>

#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

class QueueRightsTest : public StoreTest {
 protected:
  static std::filesystem::perms Mode(const std::filesystem::path& path) {
    return std::filesystem::status(path).permissions();
  }
  static constexpr auto ownersFile = std::filesystem::perms(0600);
};

TEST_F(QueueRightsTest, FilesAreTheOwnersWhateverTheUmask) {
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

TEST_F(QueueRightsTest, AnExistingFolderKeepsItsModeAStoreIsTheOwners) {
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

}  // namespace
}  // namespace veld_report::tests
