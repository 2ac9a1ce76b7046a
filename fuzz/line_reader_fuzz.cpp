// The program's line reader on a pipe. The input arrives in pieces, and the lines must be those of the whole.
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

  std::string given;     // what was written to the pipe
  std::size_t seen = 0;  // how much of it has been handed out
  std::uint64_t lines = 0;
  const auto drain = [&](Result last) {
    for (std::size_t calls = 0;; ++calls) {
      Require(calls <= given.size() + 2, "no end");
      std::string_view line = "untouched";
      const Result result = reader.Next(std::chrono::milliseconds(0), &line);
      if (result == last) return;
      Require(result == Result::line || result == Result::tooLong, "an end or a pause at the wrong place");
      Require(seen < given.size(), "more lines than there are");
      const std::size_t end = std::min(given.find('\n', seen), given.size());
      Require(end < given.size() || last == Result::end, "a line that hasn't ended yet");
      Require((result == Result::tooLong) == (end - seen > limit), "the limit of a line");
      if (result == Result::line)
        Require(line == std::string_view(given).substr(seen, end - seen), "the line");
      Require(reader.LineNumber() == ++lines, "the number of the line");
      seen = end + 1;
    }
  };
  while (!in.Empty()) {
    // Repeating a piece makes long lines from short inputs. A pipe takes 64 KiB.
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
  Require(seen >= given.size() && reader.BytesRead() == given.size(), "something is missing");
  return 0;
}
