// PowerLog: everything that a store does to its files, in order, and what a disk may hold of it when the
// power goes in between.
//
// Of a file that hasn't been synced a disk may hold any part of what was written since the last sync, a write
// cut at a sector included; of a folder, the entries as they were at any moment since it was synced. A write
// changes no byte outside of its range, as SQLite takes it for granted, and what was synced stays.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/host/faulty_vfs.h"

namespace veld_report::tests {

using DiskImage = std::map<std::string, std::string>;  // content of each file, by name

// One step, of a file or of the folder.
struct DiskStep {
  enum Kind { write, truncate, sync, link, unlink, syncFolder } kind;
  std::size_t file = 0;     // number of its content; a name that is used again stands for another one
  std::int64_t offset = 0;  // the new size of truncate
  std::string text{};       // bytes of write, name of link and unlink
};

// The files of a folder behind some of the steps.
class Disk {
 public:
  using Random = std::mt19937_64;

  explicit Disk(const DiskImage& synced);

  void Do(const DiskStep& step);
  // If everything has reached the disk in time; `last` is then under way and may be torn.
  DiskImage Whole(const DiskStep* last, Random& random) const;
  // If only some of what isn't synced has.
  DiskImage Reordered(Random& random) const;

 private:
  struct Content {
    std::string synced;
    std::string whole;
    std::vector<DiskStep> since;  // the last sync
  };
  using Names = std::map<std::string, std::size_t>;

  static void Apply(const DiskStep& step, std::string* content);
  static void ApplyTorn(const DiskStep& write, std::string* content, Random& random);
  static void Apply(const DiskStep& step, Names* names);

  std::map<std::size_t, Content> contents_;
  Names synced_;
  Names whole_;
  std::vector<DiskStep> since_;  // of the folder
};

// Threads: any for what the store does; Now too.
// Life: recording from the constructor on -> ended by Stop or the destructor. The store is opened after the
// one and closed before the other.
class PowerLog {
 public:
  // `logEnd`: number of the step behind the last write to the write-ahead log.
  struct Position {
    std::size_t count, logEnd;
  };

  // `folder` holds the synced files.
  explicit PowerLog(const std::filesystem::path& folder);
  PowerLog(const PowerLog&) = delete;
  PowerLog& operator=(const PowerLog&) = delete;
  ~PowerLog() { Stop(); }

  void Stop() { FaultyVfs::observer = nullptr; }
  const DiskImage& Start() const { return start_; }
  Position Now() const;
  // For when the recording has ended.
  const std::vector<DiskStep>& Steps() const { return steps_; }
  bool IsLogSync(const DiskStep& step) const;

 private:
  struct Open {
    std::size_t file;
    bool syncsFolder;  // with its next sync, as SQLite does it for logs and journals
  };

  void Note(FaultyVfs::Event event, const sqlite3_file* file, std::int64_t offset, std::string_view text);

  DiskImage start_;
  mutable std::mutex mutex_;  // guards the rest, until the recording has ended
  std::vector<DiskStep> steps_;
  std::map<std::string, std::size_t> names_;
  std::map<const void*, Open> open_;
  std::set<std::size_t> logs_;
  std::size_t files_ = 0;
  std::size_t logEnd_ = 0;
};

// The files of a store in a folder, without its locks and notes.
DiskImage ReadImage(const std::filesystem::path& folder);
// Replaces those.
void WriteImage(const DiskImage& image, const std::filesystem::path& folder);

}  // namespace veld_report::tests
