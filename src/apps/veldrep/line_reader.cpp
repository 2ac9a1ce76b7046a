#include "apps/veldrep/line_reader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "apps/veldrep/failure.h"

namespace veld_report::app {
namespace {

constexpr std::size_t blockBytes = 256 * 1024;

std::string Reason() { return std::generic_category().message(errno); }

}  // namespace

LineReader::LineReader(const std::string& path, std::size_t lineLimitBytes)
    : name_(path == "-" ? "stdin" : path), lineLimitBytes_(lineLimitBytes) {
  file_ = path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file_ < 0) throw Failure(name_, "can't be opened: " + Reason());
  struct stat status {};
  if (fstat(file_, &status) == 0 && S_ISREG(status.st_mode))
    sizeBytes_ = static_cast<std::uint64_t>(status.st_size);
}

LineReader::~LineReader() { close(file_); }

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
  pollfd waiting{file_, POLLIN, 0};
  const int ready = poll(&waiting, 1, static_cast<int>(patience.count()));
  if (ready == 0 || (ready < 0 && errno == EINTR)) return false;
  buffer_.erase(0, begin_);
  begin_ = 0;
  const std::size_t filled = buffer_.size();
  buffer_.resize(filled + blockBytes);
  const ssize_t length = read(file_, buffer_.data() + filled, blockBytes);
  buffer_.resize(filled + static_cast<std::size_t>(length < 0 ? 0 : length));
  scanned_ = filled;
  if (length < 0 && errno == EINTR) return false;
  if (length < 0) throw Failure(name_, "can't be read: " + Reason());
  bytesRead_ += static_cast<std::uint64_t>(length);
  ended_ = length == 0;
  return true;
}

}  // namespace veld_report::app
