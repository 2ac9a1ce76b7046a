// NdjsonFile: the sink that appends each record as a line to a file.
//
// One process of ours writes a file at a time; an advisory lock keeps a second one out. Other programs may
// rotate, remove or cut the file at any time: before each write the sink looks at what it writes to, opens
// the path anew if it names another file, and appends to what is there. It takes away nothing but what it has
// itself written of a line that didn't become whole. What a crash left of one is moved to a file of its own
// at the start. A file that isn't one of JSON lines is refused and stays as it is.
//
// Rotation renames the file to FILE.20260331T094107Z, the moment in UTC, with "-1" and so on if there is such
// a file, and goes on in a new one. It happens before a write that would make the file larger than
// `rotateBytes`, and before the first write that comes `rotateEvery` after the file was opened. A file
// without lines isn't rotated.
//
// It remembers the latest `rememberedIds` ids in memory. At the start it reads them from the end of the file,
// at most 1 KiB for each; it doesn't look into rotated files.
#pragma once

#include <cstdint>
#include <string>

#include "server/record_sink.h"
#include "server/remembered_ids.h"

namespace veld_report::server {

class NdjsonFile final : public GroupingSink {
 public:
  // Opens or creates the file (readable by its owner and group) and moves a torn last line to
  // FILE.torn.MOMENT, which the log hears of. Throws std::runtime_error with a sentence if the file can't be
  // opened or repaired, or isn't one of JSON lines.
  explicit NdjsonFile(const SinkOptions& options);
  ~NdjsonFile() override;
  NdjsonFile(const NdjsonFile&) = delete;
  NdjsonFile& operator=(const NdjsonFile&) = delete;

 private:
  struct OpenFile {
    int handle = -1;
    std::uint64_t size = 0;   // of whole, synced lines
    bool endsInLine = false;  // its last line has no end
  };

  void WriteGroup(std::vector<Member>& group) override;
  // Does nothing if the file is still the one that has the path.
  void ReopenFile() override;

  // Finds out what has become of the file since the last write.
  void LookAtFile();
  bool HasPath(std::uint64_t* size) const;
  OpenFile Open() const;
  void Adopt(const OpenFile& fresh);
  void SyncFolder() const;
  void RepairTail(OpenFile* file) const;
  void MoveAside(const std::string& torn) const;
  std::string LastLine(const OpenFile& file) const;
  void Say(const std::string& sentence) const;
  bool IsTimeToRotate(std::size_t bytes) const;
  void Rotate();
  // The path, `infix`, and the moment.
  std::string FreeName(const char* infix) const;
  void Write(std::string lines);
  void Append(const std::string& lines);
  bool CutBack();
  void Recall();
  [[noreturn]] void Fail(const std::string& what) const;

  const SinkOptions options_;
  const std::string& path_ = options_.out;
  const std::shared_ptr<const host::Clock> clock_;
  OpenFile file_;
  std::string partial_;  // what was being written when a write failed, until what of it is there is cut off
  host::Clock::TimePoint opened_;
  RememberedIds ids_;
};

}  // namespace veld_report::server
