// NdjsonFile: a file of lines to which many threads append, each of them sure of its lines when Append
// returns.
//
// It differs from a stream in that: nothing is acknowledged before it is synced, requests that arrive during
// one sync share the next, and what a crash or a full disk left of a line is taken away again, so the file
// always holds whole lines. One process writes a file at a time (an advisory lock keeps a second one out).
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
  // Opens or creates the file (readable by its owner and group) and repairs a torn last line: everything
  // behind the last line end is cut off. Throws std::runtime_error with a sentence if the file can't be had.
  explicit NdjsonFile(const std::string& path);
  ~NdjsonFile();
  NdjsonFile(const NdjsonFile&) = delete;
  NdjsonFile& operator=(const NdjsonFile&) = delete;

  // Appends whole lines, each with its line end, and returns when they are on the disk; lines of one call
  // stand together. Throws std::runtime_error with a sentence if that fails; then the file holds none of
  // them. Waits for the disk. Threads: any.
  void Append(std::string_view lines);

  // Bytes that the repair at the start has cut off.
  std::uint64_t TornBytes() const { return tornBytes_; }

 private:
  // What one sync makes durable: the lines of every call that came while the one before was being written.
  struct Batch {
    std::string lines;
    std::string failure;
    bool done = false;
  };

  void Open();
  void SyncFolder() const;
  void RepairTail();
  // Returns the sentence of what failed, or an empty text.
  std::string Write(const std::string& lines);
  std::string CutBack(const std::string& failure);
  [[noreturn]] void Fail(const std::string& what) const;

  const std::string path_;
  int file_ = -1;
  std::uint64_t size_ = 0;  // of whole, synced lines; belongs to the call that has set `writing_`
  bool broken_ = false;     // a piece of a line couldn't be cut off again; belongs to the same
  std::uint64_t tornBytes_ = 0;

  std::mutex mutex_;  // guards what follows; never held across I/O
  std::condition_variable changed_;
  std::shared_ptr<Batch> open_;  // the batch that calls may still join
  bool writing_ = false;
};

}  // namespace veld_report::server
