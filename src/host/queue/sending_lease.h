// SendingLease: of the processes that share a store, one at a time sends what is waiting.
//
// It is a lock on a file, so it ends with its process. A process that is stopped would keep it, so the holder
// also writes another number into the file every five seconds. If that stays the same for half a minute, the
// next process puts a file of its own in the place of the first. Once the stopped process runs again, it
// finds that its file isn't the store's any more, and gives up what it holds.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "host/platform/machine_clock.h"
#include "host/queue/store_folder.h"

namespace veld_report::host {

// One thread at a time; queue_store.h locks.
class SendingLease {
 public:
  static constexpr std::chrono::milliseconds beatEvery{5000};

  SendingLease(std::filesystem::path file, std::shared_ptr<const MachineClock> machine)
      : file_(std::move(file)), machine_(std::move(machine)) {}

  // Takes the lease if nobody has it, or its holder is stopped. Returns true if it is held. Throws
  // StoreError.
  bool Take();
  bool IsHeld() const { return static_cast<bool>(lock_); }
  // Ends it if another process has taken it. Looks no more than once a second.
  void CheckIfDue();
  // Shows the other processes that this one is running.
  void BeatIfDue();
  void Release() { lock_ = FileLock(); }

 private:
  bool Hold(FileLock lock);
  bool TakeOver();
  void Beat();

  const std::filesystem::path file_;
  const std::shared_ptr<const MachineClock> machine_;
  FileLock lock_;
  FileIdentity identity_;
  std::int64_t checkedMs_ = 0;
  std::int64_t beatMs_ = 0;
  std::uint64_t beats_ = 0;
  std::string seen_;  // what another holder wrote, and since when it has been there
  std::int64_t seenMs_ = 0;
};

}  // namespace veld_report::host
