#include "host/platform/input.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace veld_report::host {

Input::Input(const std::string& path)
    : handle_(path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  if (handle_ < 0) throw std::system_error(errno, std::generic_category());
}

Input::~Input() { close(handle_); }

std::optional<std::size_t> Input::Read(std::span<char> bytes, std::chrono::milliseconds limit) {
  pollfd waiting{handle_, POLLIN, 0};
  const int ready = poll(&waiting, 1, static_cast<int>(limit.count()));
  if (ready == 0 || (ready < 0 && errno == EINTR)) return std::nullopt;
  const ssize_t length = read(handle_, bytes.data(), bytes.size());
  if (length < 0 && errno == EINTR) return std::nullopt;
  if (length < 0) throw std::system_error(errno, std::generic_category());
  return static_cast<std::size_t>(length);
}

std::uint64_t Input::SizeBytes() const noexcept {
  struct stat status {};
  if (fstat(handle_, &status) != 0 || !S_ISREG(status.st_mode)) return 0;
  return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace veld_report::host
