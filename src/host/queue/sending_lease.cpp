#include "host/queue/sending_lease.h"

#include <utility>

namespace veld_report::host {
namespace {

constexpr std::int64_t stoppedAfterMs = 30'000;
constexpr std::int64_t checkEveryMs = 1000;

}  // namespace

bool SendingLease::Take() {
  if (lock_) return true;
  std::string holder;
  FileLock lock = FileLock::Try(file_, FileLock::Kind::exclusive, &holder);
  if (lock) return Hold(std::move(lock));
  if (holder != seen_) {
    seen_ = std::move(holder);
    seenMs_ = machine_->AwakeMs();
  }
  return machine_->AwakeMs() - seenMs_ >= stoppedAfterMs && TakeOver();
}

bool SendingLease::TakeOver() {
  // Of several that wait, one at a time; the others then see the holder's new file.
  const FileLock turn =
      FileLock::Try(file_.parent_path() / storeOpeningName, FileLock::Kind::exclusive, nullptr);
  std::string holder;
  FileLock lock = turn ? FileLock::Try(file_, FileLock::Kind::exclusive, &holder) : FileLock();
  if (lock) return Hold(std::move(lock));
  if (!turn || holder != seen_) return false;
  RemoveFile(file_);
  lock = FileLock::Try(file_, FileLock::Kind::exclusive, nullptr);
  return lock && Hold(std::move(lock));
}

bool SendingLease::Hold(FileLock lock) {
  identity_ = lock.Identity();
  // Somebody may have replaced the file between its opening and its locking.
  if (identity_ != FileIdentity::Of(file_)) return false;
  lock_ = std::move(lock);
  checkedMs_ = machine_->AwakeMs();
  Beat();
  return true;
}

void SendingLease::CheckIfDue() {
  const std::int64_t nowMs = machine_->AwakeMs();
  if (!lock_ || nowMs - checkedMs_ < checkEveryMs) return;
  checkedMs_ = nowMs;
  if (identity_ != FileIdentity::Of(file_)) Release();
}

void SendingLease::BeatIfDue() {
  if (lock_ && machine_->AwakeMs() - beatMs_ >= beatEvery.count()) Beat();
}

void SendingLease::Beat() {
  beatMs_ = machine_->AwakeMs();
  lock_.Note(std::to_string(ProcessId()) + ' ' + std::to_string(++beats_));
}

}  // namespace veld_report::host
