// WalCheckpointer: the thread that checkpoints a store's write-ahead log while the store is in use.
//
// SQLite does this in the commit that fills the log. That takes two syncs, during which nobody can push or
// read. Here the log may go on growing meanwhile, up to four times its usual size; only a writer that outruns
// the disk waits. On a disk with little room the commit checkpoints as in SQLite, so that the log stays
// small.
#pragma once

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>

#include "host/queue/sqlite_connection.h"

namespace veld_report::host {

// Creates its own connection and thread when they are first needed. Only for the thread that uses the file's
// main connection, which must outlive the object.
class WalCheckpointer {
 public:
  explicit WalCheckpointer(const std::filesystem::path& file) : file_(file) {}
  WalCheckpointer(const WalCheckpointer&) = delete;
  WalCheckpointer& operator=(const WalCheckpointer&) = delete;
  ~WalCheckpointer();

  // Called after each commit with the log's size in pages. Returns true if the caller must checkpoint itself.
  bool MustWriteBack(int pages);
  // Returns once no checkpoint is running, until the next MustWriteBack.
  void WaitUntilIdle();

 private:
  bool HasRoom() const;
  bool Start() noexcept;
  void Run();

  const std::filesystem::path file_;
  std::optional<SqliteConnection> connection_;  // for the thread
  int pagesAtStart_ = 0;                        // when the thread was last asked

  std::mutex mutex_;  // guards the two members below; never held during a checkpoint
  bool asked_ = false;
  bool stopping_ = false;
  std::condition_variable changed_;
  std::thread thread_;
};

}  // namespace veld_report::host
