#include "host/queue/disk_reserve.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <utility>

namespace veld_report::host {
namespace {

// Some sixty pages of the log: the deletions of many packets.
constexpr off_t reserveBytes = 256 * 1024;
// There must be so many times the reserve before it is taken.
constexpr unsigned plenty = 8;

}  // namespace

DiskReserve::DiskReserve(std::filesystem::path file) : file_(std::move(file)) { Restore(); }

void DiskReserve::Release() noexcept {
  unlink(file_.c_str());
  held_ = false;
}

void DiskReserve::Restore() noexcept {
  if (held_) return;
  struct stat status {};
  if (stat(file_.c_str(), &status) == 0 && status.st_size == reserveBytes) {
    held_ = true;
    return;
  }
  struct statvfs disk {};
  if (statvfs(file_.parent_path().c_str(), &disk) != 0) return;
  if (disk.f_bavail * disk.f_frsize < plenty * static_cast<unsigned long>(reserveBytes)) return;
  const int descriptor = open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) return;
  held_ = fchmod(descriptor, 0600) == 0 && posix_fallocate(descriptor, 0, reserveBytes) == 0;
  close(descriptor);
  if (!held_) unlink(file_.c_str());
}

}  // namespace veld_report::host
