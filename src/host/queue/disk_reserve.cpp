#include "host/queue/disk_reserve.h"

#include <cstdint>
#include <utility>

#include "host/platform/file.h"
#include "host/queue/store_file.h"

namespace veld_report::host {
namespace {

// Twice the log: once for the file's growth when the log is written back, once for the log's own.
constexpr std::uint64_t reserveBytes = std::uint64_t{2} * logPages * storePageBytes;

}  // namespace

DiskReserve::DiskReserve(std::filesystem::path file) : file_(std::move(file)) {
  const auto status = FileStatus::Of(file_);
  givenUp_ = status && status->bytes == 0;
  Restore();
}

void DiskReserve::Release() noexcept {
  if (!held_) return;
  if (!File::Open(file_, File::Mode::replace)) RemoveFile(file_);
  held_ = false;
  givenUp_ = true;
}

void DiskReserve::Restore() noexcept {
  if (held_) return;
  const auto status = FileStatus::Of(file_);
  if (status && status->bytes == reserveBytes) {
    held_ = true;
    givenUp_ = false;
    return;
  }
  if (FreeBytes(file_.parent_path()).value_or(0) < 2 * reserveBytes) return;
  File file = File::Open(file_, File::Mode::write);
  if (!file) return;
  held_ = file.Reserve(reserveBytes);
  if (held_) {
    givenUp_ = false;
  } else if (!file.Truncate(0) || !givenUp_) {
    RemoveFile(file_);
  }
}

}  // namespace veld_report::host
