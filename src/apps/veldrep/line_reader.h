// LineReader: the lines of a file, a pipe or a terminal, with a bound on memory and on waiting.
//
// It differs from std::getline in that: a wait for input ends after a while, so that the caller can look
// after other things, and a line over the limit is skipped and told of instead of being held.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace veld_report::app {

class LineReader {
 public:
  enum class Result {
    line,
    tooLong,  // a line over the limit went by; there is no text
    nothing,  // no whole line within the time
    end,
  };

  // `path`: "-" is stdin. Throws Failure if the file can't be opened.
  LineReader(const std::string& path, std::size_t lineLimitBytes);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // `line` is set for line and valid until the next call; it has no line end. A last line without a line end
  // counts. A signal ends the wait as well. Throws Failure if the input can't be read.
  Result Next(std::chrono::milliseconds patience, std::string_view* line);

  // Of the line that Next told of last; the first line is 1.
  std::uint64_t LineNumber() const { return lineNumber_; }
  std::uint64_t BytesRead() const { return bytesRead_; }
  // Of a regular file; 0 for all else.
  std::uint64_t SizeBytes() const { return sizeBytes_; }

 private:
  // Reads once more. False if nothing came in time.
  bool Fill(std::chrono::milliseconds patience);
  // Hands out the line that ends in front of `end`.
  Result Deliver(std::size_t end, std::string_view* line);

  const std::string name_;
  const std::size_t lineLimitBytes_;
  int file_ = -1;
  bool ended_ = false;
  bool skipping_ = false;  // within a line over the limit
  std::string buffer_;
  std::size_t begin_ = 0;    // of what hasn't been handed out
  std::size_t scanned_ = 0;  // no line end stands before it
  std::uint64_t lineNumber_ = 0;
  std::uint64_t bytesRead_ = 0;
  std::uint64_t sizeBytes_ = 0;
};

}  // namespace veld_report::app
