#include "host/queue/wal_checkpointer.h"

#include <cstdint>

#include "host/platform/file.h"
#include "host/platform/service_thread.h"
#include "host/queue/store_file.h"

namespace veld_report::host {
namespace {

constexpr int maxLogPages = 4 * logPages;
constexpr std::uint64_t plentyOfBytes = 256 << 20;

}  // namespace

WalCheckpointer::~WalCheckpointer() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

bool WalCheckpointer::MustWriteBack(int pages) {
  if (pages < pagesAtStart_) pagesAtStart_ = 0;  // the log has restarted
  if (pages < maxLogPages && pages - pagesAtStart_ < logPages) return false;
  if (pages >= maxLogPages || !HasRoom() || !Start()) {
    WaitUntilIdle();
    pagesAtStart_ = pages;
    return true;
  }
  {
    const std::lock_guard lock(mutex_);
    if (asked_) return false;
    asked_ = true;
  }
  pagesAtStart_ = pages;
  changed_.notify_all();
  return false;
}

bool WalCheckpointer::HasRoom() const { return FreeBytes(file_.parent_path()).value_or(0) >= plentyOfBytes; }

// Returns false if no thread or connection is available now.
bool WalCheckpointer::Start() noexcept {
  if (thread_.joinable()) return true;
  try {
    connection_.emplace(file_, SqliteConnection::Access::readWrite);
    connection_->Execute("PRAGMA synchronous=NORMAL");
    thread_ = StartServiceThread("veld-log", [this] { Run(); });
    return true;
  } catch (...) {
    connection_.reset();
    return false;
  }
}

void WalCheckpointer::WaitUntilIdle() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return !asked_; });
}

void WalCheckpointer::Run() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [&] { return asked_ || stopping_; });
    if (!asked_) return;
    lock.unlock();
    try {
      connection_->Execute("PRAGMA wal_checkpoint(PASSIVE)");
    } catch (const std::exception&) {
      // The log stays as it is, and its owner checkpoints it once it has grown enough.
    }
    lock.lock();
    asked_ = false;
    changed_.notify_all();
  }
}

}  // namespace veld_report::host
