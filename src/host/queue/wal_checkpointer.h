// WalCheckpointer, the thread that writes a store's log back into its file while the store goes on.
//
// SQLite does this in the commit that fills the log: two syncs, during which nobody pushes or reads. Here the
// log may grow on meanwhile, up to four times its usual size; only a writer that outruns the disk waits. On a
// disk with little room everything is as SQLite does it, so that the log stays small.
#pragma once

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>

#include "host/queue/sqlite_connection.h"

namespace veld_report::host {

// Its own connection and thread come into being when they are first needed. One thread at a time, the one
// that uses the file's main connection; the object must go before that connection.
class WalCheckpointer {
 public:
  explicit WalCheckpointer(const std::filesystem::path& file) : file_(file) {}
  WalCheckpointer(const WalCheckpointer&) = delete;
  WalCheckpointer& operator=(const WalCheckpointer&) = delete;
  ~WalCheckpointer();

  // Told after each commit how many pages the log holds. Returns whether the caller must write it back
  // itself.
  bool MustWriteBack(int pages);
  // Returns when nobody is writing back, until the next MustWriteBack.
  void WaitUntilIdle();

 private:
  bool HasRoom() const;
  bool Start() noexcept;
  void Run();

  const std::filesystem::path file_;
  std::optional<SqliteConnection> connection_;  // the thread's
  int pagesAtStart_ = 0;                        // of the last time that the thread was asked

  std::mutex mutex_;  // guards the two below; never held while the log is written back
  bool asked_ = false;
  bool stopping_ = false;
  std::condition_variable changed_;
  std::thread thread_;
};

}  // namespace veld_report::host
