// Input: a file, a pipe or a terminal that is read to its end, with a limit on each wait.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <system_error>

#include "host/platform/file.h"

namespace veld_report::host {

// Threads: one at a time.
class Input {
 public:
  // `path`: "-" is stdin. Throws std::system_error if it can't be opened.
  explicit Input(const std::string& path);
  ~Input();
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  // Returns the number of bytes, 0 at the end; nothing if none came in time, or if Ctrl-C ended the wait. On
  // Windows a terminal's line that somebody has begun to type is waited for. Throws std::system_error.
  std::optional<std::size_t> Read(std::span<char> bytes, std::chrono::milliseconds limit);
  // The size of a regular file; 0 for anything else.
  std::uint64_t SizeBytes() const noexcept;

 private:
  File::Handle handle_;
  std::string pending_;  // of a terminal's line
};

}  // namespace veld_report::host
