#include "server/body_capture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

namespace veld_report::server {
namespace {

std::string ErrorText() { return std::generic_category().message(errno); }

bool WriteAll(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(file, text.data(), text.size());
    if (written < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

BodyCapture::BodyCapture(const std::filesystem::path& folder) : folder_(folder) {
  constexpr mode_t folderMode = 0700;
  if (::mkdir(folder_.c_str(), folderMode) == 0 || std::filesystem::is_directory(folder_)) return;
  throw std::runtime_error(folder_.string() + ": can't make this folder for refused bodies: " + ErrorText());
}

std::string BodyCapture::Keep(std::string_view body) {
  if (body.size() > maxBodyBytes) return "the body is too large to be kept";
  const std::lock_guard lock(mutex_);
  char name[32];
  std::snprintf(name, sizeof name, "refused-%02u.body", kept_ % maxBodies + 1);
  const std::filesystem::path path = folder_ / name;
  constexpr mode_t fileMode = 0600;
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, fileMode);
  const bool written = file >= 0 && WriteAll(file, body);
  const std::string why = written ? "" : ErrorText();
  if (file >= 0) ::close(file);
  if (!written) return "the body can't be kept: " + why;
  ++kept_;
  return "the body is in " + path.string();
}

}  // namespace veld_report::server
