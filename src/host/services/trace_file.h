// TraceFile: a file of lines with a size limit.
//
// At the limit the file is renamed to NAME.1, replacing an older one, and a new one is started, so that the
// two together never exceed twice the limit. Not for data: a line that can't be written is dropped and
// counted.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "host/platform/file.h"

namespace veld_report::host {

// Life: open -> closed with the object. Threads: one at a time.
class TraceFile {
 public:
  // Opens the file for appending, or creates it, accessible to its owner only. A symbolic link isn't
  // followed. An empty `path` means stderr, which has no limit. Throws std::runtime_error with the path and
  // the reason.
  TraceFile(std::string path, std::uint64_t limitBytes);
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;
  ~TraceFile();

  // `line` includes its line end and is written in one call, so that lines of several processes don't mix
  // either. Returns false if it couldn't be written whole.
  bool Write(std::string_view line);

 private:
  void Rotate();

  const std::string path_;
  const std::uint64_t limitBytes_;
  std::uint64_t sizeBytes_ = 0;
  File file_;
};

}  // namespace veld_report::host
