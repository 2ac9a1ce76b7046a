// NdjsonFile: a file of lines that many threads append to. When Append returns, its lines are on the disk.
//
// It differs from a stream in three ways. Nothing is acknowledged before it is synced. Requests that arrive
// during one sync share the next one. And a partial line that a crash or a full disk left is removed, so the
// file always holds whole lines. One process writes a file at a time; an advisory lock keeps a second one
// out.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace veld_report::server {

class NdjsonFile {
 public:
  // Opens or creates the file (readable by its owner and group) and cuts off a torn last line. Throws
  // std::runtime_error with a sentence if the file can't be opened or repaired.
  explicit NdjsonFile(const std::string& path);
  ~NdjsonFile();
  NdjsonFile(const NdjsonFile&) = delete;
  NdjsonFile& operator=(const NdjsonFile&) = delete;

  // Appends whole lines, each with its line end, and returns once they are on the disk. The lines of one call
  // stay together. Throws std::runtime_error with a sentence on failure; then the file holds none of them.
  // Blocks on the disk. Threads: any.
  void Append(std::string_view lines);

  // The bytes that the repair in the constructor cut off.
  std::uint64_t TornBytes() const { return tornBytes_; }

 private:
  // What one sync makes durable: the lines of every call that came during the previous write.
  struct Batch {
    std::string lines;
    std::string failure;
    bool done = false;
  };

  void Open();
  void SyncFolder() const;
  void RepairTail();
  // Returns the sentence that says what failed, or an empty text.
  std::string Write(const std::string& lines);
  std::string CutBack(const std::string& failure);
  [[noreturn]] void Fail(const std::string& what) const;

  const std::string path_;
  int file_ = -1;
  std::uint64_t size_ = 0;  // of whole, synced lines; owned by the call that set `writing_`
  bool broken_ = false;     // a partial line couldn't be cut off; same owner
  std::uint64_t tornBytes_ = 0;

  std::mutex mutex_;  // guards the members below; never held across I/O
  std::condition_variable changed_;
  std::shared_ptr<Batch> open_;  // the batch that calls can still join
  bool writing_ = false;
};

}  // namespace veld_report::server
