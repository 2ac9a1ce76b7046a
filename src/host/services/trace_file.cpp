#include "host/services/trace_file.h"
#include "host/platform/file.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace veld_report::host {

TraceFile::TraceFile(std::string path, std::uint64_t limitBytes)
    : path_(std::move(path)), limitBytes_(limitBytes) {
  if (path_.empty()) {
    file_ = File::StandardError();
    return;
  }
  std::error_code error;
  file_ = File::OpenAsItIs(FromUtf8(path_), File::Mode::append, false, &error);
  if (!file_) {
    const std::string reason =
        error == std::errc::too_many_symbolic_link_levels ? "it is a symbolic link" : error.message();
    throw std::runtime_error("trace file " + path_ + ": " + reason +
                             "; choose a path that this user may write");
  }
  sizeBytes_ = file_.Size();
}

TraceFile::~TraceFile() {
  if (path_.empty()) file_.Abandon();
}

bool TraceFile::Write(std::string_view line) {
  if (!path_.empty() && sizeBytes_ > 0 && sizeBytes_ + line.size() > limitBytes_) Rotate();
  if (!file_) return false;
  const std::size_t written = file_.Write(line);
  sizeBytes_ += written;
  return written == line.size();
}

void TraceFile::Rotate() {
  const std::error_code notMoved = Rename(FromUtf8(path_), FromUtf8(path_ + ".1"));
  File fresh = File::OpenAsItIs(FromUtf8(path_), File::Mode::append, false);
  const bool isFresh = static_cast<bool>(fresh);
  if (isFresh) file_ = std::move(fresh);
  // If the old file couldn't be moved, losing it is better than filling the disk.
  if (notMoved || !isFresh) file_.Truncate(0);
  sizeBytes_ = file_.Size();
}

}  // namespace veld_report::host
