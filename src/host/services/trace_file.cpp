#include "host/services/trace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace veld_report::host {
namespace {

int OpenForAppending(const std::string& path) {
  return ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
}

std::uint64_t SizeOf(int descriptor) {
  struct stat status {};
  return ::fstat(descriptor, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

}  // namespace

TraceFile::TraceFile(std::string path, std::uint64_t limitBytes)
    : path_(std::move(path)), limitBytes_(limitBytes) {
  if (path_.empty()) {
    descriptor_ = STDERR_FILENO;
    return;
  }
  descriptor_ = OpenForAppending(path_);
  if (descriptor_ < 0) {
    const std::string reason =
        errno == ELOOP ? "it is a symbolic link" : std::generic_category().message(errno);
    throw std::runtime_error("trace file " + path_ + ": " + reason +
                             "; choose a path that this user may write");
  }
  sizeBytes_ = SizeOf(descriptor_);
}

TraceFile::~TraceFile() {
  if (!path_.empty() && descriptor_ >= 0) ::close(descriptor_);
}

bool TraceFile::Write(std::string_view line) {
  if (!path_.empty() && sizeBytes_ > 0 && sizeBytes_ + line.size() > limitBytes_) Rotate();
  if (descriptor_ < 0) return false;
  ssize_t written = 0;
  do {
    written = ::write(descriptor_, line.data(), line.size());
  } while (written < 0 && errno == EINTR);
  if (written < 0) return false;
  sizeBytes_ += static_cast<std::uint64_t>(written);
  return static_cast<std::size_t>(written) == line.size();
}

void TraceFile::Rotate() {
  const bool moved = std::rename(path_.c_str(), (path_ + ".1").c_str()) == 0;
  const int fresh = OpenForAppending(path_);
  if (fresh >= 0) {
    ::close(descriptor_);
    descriptor_ = fresh;
  }
  // If the old file couldn't be moved, losing it is better than filling the disk.
  if (!moved || fresh < 0) (void)!::ftruncate(descriptor_, 0);
  sizeBytes_ = SizeOf(descriptor_);
}

}  // namespace veld_report::host
