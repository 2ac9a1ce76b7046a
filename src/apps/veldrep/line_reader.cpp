#include "apps/veldrep/line_reader.h"

#include <optional>
#include <span>
#include <system_error>

#include "apps/veldrep/command.h"
#include "apps/veldrep/failure.h"

namespace veld_report::app {
namespace {

constexpr std::size_t blockBytes = std::size_t{256} * 1024;

}  // namespace

LineReader::LineReader(const std::string& path, std::size_t lineLimitBytes) try
    : name_(path == "-" ? "stdin" : path), lineLimitBytes_(lineLimitBytes), input_(path) {
  RefuseFolder(path);
} catch (const std::system_error& error) {
  throw Failure(path == "-" ? "stdin" : path, "can't be opened: " + error.code().message());
}

LineReader::Result LineReader::Next(std::chrono::milliseconds patience, std::string_view* line) {
  for (;;) {
    const std::size_t end = buffer_.find('\n', scanned_);
    if (end != std::string::npos) return Deliver(end, line);
    scanned_ = buffer_.size();
    if (!skipping_ && buffer_.size() - begin_ > lineLimitBytes_) skipping_ = true;
    if (skipping_) begin_ = buffer_.size();
    if (ended_ && (skipping_ || begin_ < buffer_.size())) return Deliver(buffer_.size(), line);
    if (ended_) return Result::end;
    if (!Fill(patience)) return Result::nothing;
  }
}

LineReader::Result LineReader::Deliver(std::size_t end, std::string_view* line) {
  ++lineNumber_;
  const bool tooLong = skipping_ || end - begin_ > lineLimitBytes_;
  *line = tooLong ? std::string_view() : std::string_view(buffer_).substr(begin_, end - begin_);
  skipping_ = false;
  begin_ = end < buffer_.size() ? end + 1 : end;
  scanned_ = begin_;
  return tooLong ? Result::tooLong : Result::line;
}

bool LineReader::Fill(std::chrono::milliseconds patience) {
  buffer_.erase(0, begin_);
  begin_ = 0;
  const std::size_t filled = buffer_.size();
  scanned_ = filled;
  buffer_.resize(filled + blockBytes);
  std::optional<std::size_t> length;
  try {
    length = input_.Read(std::span(buffer_).subspan(filled), patience);
  } catch (const std::system_error& error) {
    throw Failure(name_, "can't be read: " + error.code().message());
  }
  buffer_.resize(filled + length.value_or(0));
  bytesRead_ += length.value_or(0);
  ended_ = length == std::size_t{0};
  return length.has_value();
}

}  // namespace veld_report::app
