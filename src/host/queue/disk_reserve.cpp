#include "host/queue/disk_reserve.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <utility>

#include "host/queue/store_file.h"
#include "host/queue/store_folder.h"

namespace veld_report::host {
namespace {

// Twice the log: once for the file's growth when the log is written back, once for the log's own.
constexpr off_t reserveBytes = off_t{2} * logPages * storePageBytes;

}  // namespace

DiskReserve::DiskReserve(std::filesystem::path file) : file_(std::move(file)) { Restore(); }

void DiskReserve::Release() noexcept {
  if (!held_) return;
  unlink(file_.c_str());
  held_ = false;
  givenUp_ = true;
}

void DiskReserve::Restore() noexcept {
  if (held_) return;
  struct stat status {};
  if (stat(file_.c_str(), &status) == 0 && status.st_size == reserveBytes) {
    held_ = true;
    givenUp_ = false;
    return;
  }
  struct statvfs disk {};
  if (statvfs(file_.parent_path().c_str(), &disk) != 0) return;
  if (disk.f_bavail * disk.f_frsize < 2 * static_cast<unsigned long>(reserveBytes)) return;
  const int descriptor = OpenPrivateFile(file_, O_RDWR | O_CREAT);
  if (descriptor < 0) return;
  held_ = posix_fallocate(descriptor, 0, reserveBytes) == 0;
  close(descriptor);
  if (held_) {
    givenUp_ = false;
  } else {
    unlink(file_.c_str());
  }
}

}  // namespace veld_report::host
