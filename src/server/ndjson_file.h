// NdjsonFile: the sink that appends each record as a line to a file.
//
// A partial line that a crash or a full disk left is removed, so the file always holds whole lines. One
// process writes a file at a time; an advisory lock keeps a second one out.
//
// Rotation renames the file to FILE.20260331T094107Z, the moment in UTC, with "-1" and so on if there is such
// a file, and goes on in a new one. It happens before a write that would make the file larger than
// `rotateBytes`, and before the first write that comes `rotateEvery` after the file was opened. A file
// without lines isn't rotated.
//
// It remembers the ids of the last 100,000 records that had one, in memory: a restart forgets them.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_set>

#include "server/record_sink.h"

namespace veld_report::server {

class NdjsonFile final : public GroupingSink {
 public:
  static constexpr std::size_t rememberedIds = 100'000;

  // Opens or creates the file (readable by its owner and group) and cuts off a torn last line, which the log
  // hears of. Throws std::runtime_error with a sentence if the file can't be opened or repaired.
  explicit NdjsonFile(const SinkOptions& options);
  ~NdjsonFile() override;
  NdjsonFile(const NdjsonFile&) = delete;
  NdjsonFile& operator=(const NdjsonFile&) = delete;

 private:
  struct OpenFile {
    int handle = -1;
    std::uint64_t size = 0;  // of whole, synced lines
    std::uint64_t tornBytes = 0;
  };

  void WriteGroup(std::vector<Member>& group) override;
  // Does nothing if the file is still the one that has the path.
  void ReopenFile() override;

  OpenFile Open() const;
  void Adopt(const OpenFile& fresh);
  void SyncFolder() const;
  void RepairTail(OpenFile* file) const;
  bool IsTimeToRotate(std::size_t bytes) const;
  void Rotate();
  std::string RotatedName() const;
  void Append(const std::string& lines);
  bool CutBack();
  void Remember(std::unordered_set<std::string>& ids);
  [[noreturn]] void Fail(const std::string& what) const;

  const SinkOptions options_;
  const std::string& path_ = options_.out;
  const std::shared_ptr<const host::Clock> clock_;
  OpenFile file_;
  bool hasPartialLine_ = false;  // it couldn't be cut off yet
  host::Clock::TimePoint opened_;
  std::unordered_set<std::string> ids_;
  std::deque<const std::string*> idsByAge_;  // point into ids_
};

}  // namespace veld_report::server
