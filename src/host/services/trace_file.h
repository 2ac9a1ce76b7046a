// TraceFile, a file of lines that never outgrows its limit.
//
// At the limit the file is renamed to NAME.1, in place of an older one, and a new one begun, so the two
// together hold at most twice the limit. Not for data: a line that can't be written is dropped and counted.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace veld_report::host {

// Life: open -> closed with the object. Threads: one at a time.
class TraceFile {
 public:
  // Opens for appending, readable by the owner alone, and makes the file if need be. An empty `path` means
  // stderr, which has no limit. Throws std::runtime_error, naming the path and the reason.
  TraceFile(std::string path, std::uint64_t limitBytes);
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;
  ~TraceFile();

  // `line` ends with its line end and goes out in one write, so lines of several processes don't mix either.
  // Returns false if it couldn't be written whole.
  bool Write(std::string_view line);

 private:
  void Rotate();

  const std::string path_;
  const std::uint64_t limitBytes_;
  std::uint64_t sizeBytes_ = 0;
  int descriptor_ = -1;
};

}  // namespace veld_report::host
