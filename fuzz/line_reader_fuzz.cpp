// The program's line reader over a pipe: the input is cut into pieces that arrive one by one, and what it
// hands out is compared with the lines of the whole.
#include "apps/veldrep/line_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace veld_report;
  using Result = app::LineReader::Result;
  using fuzz::Require;
  fuzz::Input in(data, size);
  const std::size_t limit = in.Below(256) * (in.OneIn(2) ? 1 : 16);
  int ends[2];
  Require(pipe2(ends, O_CLOEXEC) == 0, "no pipe");
  app::LineReader reader("/proc/self/fd/" + std::to_string(ends[0]), limit);
  close(ends[0]);

  std::string given;     // what has gone into the pipe
  std::size_t told = 0;  // how much of it has been handed out
  std::uint64_t lines = 0;
  const auto drain = [&](Result last) {
    for (std::size_t calls = 0;; ++calls) {
      Require(calls <= given.size() + 2, "no end");
      std::string_view line = "untouched";
      const Result result = reader.Next(std::chrono::milliseconds(0), &line);
      if (result == last) return;
      Require(result == Result::line || result == Result::tooLong, "an end or a pause at the wrong place");
      Require(told < given.size(), "more lines than there are");
      const std::size_t end = std::min(given.find('\n', told), given.size());
      Require(end < given.size() || last == Result::end, "a line that hasn't ended yet");
      Require((result == Result::tooLong) == (end - told > limit), "the limit of a line");
      if (result == Result::line)
        Require(line == std::string_view(given).substr(told, end - told), "the line");
      Require(reader.LineNumber() == ++lines, "the number of the line");
      told = end + 1;
    }
  };
  while (!in.Empty()) {
    // A repeated piece makes long lines from short inputs; a pipe takes 64 KiB.
    const std::size_t length = in.Below(64), times = in.OneIn(8) ? in.Below(200) : 1;
    const std::string_view piece = in.Bytes(length);
    std::string pieces;
    for (std::size_t i = 0; i < times; ++i) pieces += piece;
    Require(write(ends[1], pieces.data(), pieces.size()) == static_cast<ssize_t>(pieces.size()), "the pipe");
    given += pieces;
    drain(Result::nothing);
  }
  close(ends[1]);
  drain(Result::end);
  Require(told >= given.size() && reader.BytesRead() == given.size(), "something is missing");
  return 0;
}
