// LineReader: reads lines from a file, a pipe or a terminal, with limits on memory and on waiting.
//
// It differs from std::getline in two ways. A wait for input times out, so that the caller can do other work.
// And a line over the limit is skipped and reported instead of being held in memory.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "host/platform/input.h"

namespace veld_report::app {

class LineReader {
 public:
  enum class Result {
    line,
    tooLong,  // a line over the limit was skipped; there is no text
    nothing,  // no whole line in time
    end,
  };

  // `path`: "-" is stdin. Throws Failure if the file can't be opened, or is a folder.
  LineReader(const std::string& path, std::size_t lineLimitBytes);

  // `line` is set only for Result::line, has no line end and is valid until the next call. A last line
  // without a line end counts. A signal also ends the wait. Throws Failure if the input can't be read.
  Result Next(std::chrono::milliseconds patience, std::string_view* line);

  const std::string& Name() const { return name_; }
  // The number of the line that Next returned last, from 1.
  std::uint64_t LineNumber() const { return lineNumber_; }
  std::uint64_t BytesRead() const { return bytesRead_; }
  // The size of a regular file; 0 for anything else.
  std::uint64_t SizeBytes() const { return sizeBytes_; }

 private:
  // Reads once. False if nothing came in time.
  bool Fill(std::chrono::milliseconds patience);
  // Returns the line that ends before `end`.
  Result Deliver(std::size_t end, std::string_view* line);

  const std::string name_;
  const std::size_t lineLimitBytes_;
  host::Input input_;
  const std::uint64_t sizeBytes_ = input_.SizeBytes();
  bool ended_ = false;
  bool skipping_ = false;  // in the middle of a line over the limit
  std::string buffer_;
  std::size_t begin_ = 0;    // of what hasn't been returned yet
  std::size_t scanned_ = 0;  // there is no line end before it
  std::uint64_t lineNumber_ = 0;
  std::uint64_t bytesRead_ = 0;
};

}  // namespace veld_report::app
