#include "host/queue/clean_marker.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "host/queue/store_folder.h"

namespace veld_report::host {
namespace {

// Checking this much takes a few milliseconds.
constexpr off_t smallFileBytes = 4 << 20;

std::string FirstLine(const std::filesystem::path& file) {
  std::string line;
  std::ifstream stream(file);
  std::getline(stream, line);
  return line;
}

// Identifies the file and the machine's current uptime; empty if the machine has no such identity.
std::string OpenText(const struct stat& status) {
  const std::string boot = FirstLine("/proc/sys/kernel/random/boot_id");
  return boot.empty() ? boot : "open " + boot + " " + std::to_string(status.st_ino);
}

std::string ClosedText(const struct stat& status) {
  return "closed " + std::to_string(status.st_size) + " " + std::to_string(status.st_mtim.tv_sec) + "." +
         std::to_string(status.st_mtim.tv_nsec) + " " + std::to_string(status.st_ino);
}

bool HasLog(const std::filesystem::path& file) {
  std::error_code error;
  const auto bytes = std::filesystem::file_size(file.string() + "-wal", error);
  return !error && bytes != 0;
}

}  // namespace

CleanMarker::CleanMarker(const std::filesystem::path& file)
    : file_(file), mark_(file.empty() ? std::string() : file.string() + ".sound") {}

bool CleanMarker::Vouches() const {
  struct stat status {};
  if (file_.empty() || stat(file_.c_str(), &status) != 0 || status.st_size <= smallFileBytes) return false;
  const std::string line = FirstLine(mark_);
  if (line.empty()) return false;
  return line == OpenText(status) || (line == ClosedText(status) && !HasLog(file_));
}

void CleanMarker::NoteOpened() noexcept {
  struct stat status {};
  try {
    if (!file_.empty() && stat(file_.c_str(), &status) == 0) Write(OpenText(status));
  } catch (...) {
    Withdraw();
  }
}

void CleanMarker::NoteClosed() noexcept {
  struct stat status {};
  try {
    if (withdrawn_ || file_.empty() || stat(file_.c_str(), &status) != 0) return;
    Write(ClosedText(status));
  } catch (...) {
    Withdraw();
  }
}

void CleanMarker::Withdraw() noexcept {
  withdrawn_ = true;
  if (!file_.empty()) unlink(mark_.c_str());
}

// A line truncated by a full disk vouches for nothing.
void CleanMarker::Write(const std::string& text) noexcept {
  const int descriptor = OpenPrivateFile(mark_, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC);
  if (descriptor < 0) return;
  const bool written = write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(descriptor);
  if (!written) unlink(mark_.c_str());
}

}  // namespace veld_report::host
