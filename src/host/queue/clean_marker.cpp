#include "host/queue/clean_marker.h"

#include <cstdint>
#include <fstream>
#include <optional>
#include <string>

#include "host/platform/file.h"
#include "host/platform/machine_clock.h"

namespace veld_report::host {
namespace {

// Checking this much takes a few milliseconds.
constexpr std::uint64_t smallFileBytes = 4 << 20;

std::string FirstLine(const std::filesystem::path& file) {
  std::string line;
  std::ifstream stream(SystemPath(file));
  std::getline(stream, line);
  return line;
}

// Identifies the file and the machine's current uptime; empty if the machine has no such identity.
std::string OpenText(const FileStatus& status) {
  const std::string boot(MachineClock::System()->Boot());
  return boot.empty() ? boot : "open " + boot + " " + std::to_string(status.identity.inode);
}

std::string ClosedText(const FileStatus& status) {
  constexpr std::int64_t second = 1'000'000'000;
  return "closed " + std::to_string(status.bytes) + " " + std::to_string(status.changedNs / second) + "." +
         std::to_string(status.changedNs % second) + " " + std::to_string(status.identity.inode);
}

bool HasLog(const std::filesystem::path& file) {
  const auto log = FileStatus::Of(WithEnding(file, "-wal"));
  return log && log->bytes != 0;
}

}  // namespace

CleanMarker::CleanMarker(const std::filesystem::path& file)
    : file_(file), mark_(file.empty() ? file : WithEnding(file, ".sound")) {}

bool CleanMarker::Vouches() const {
  const auto status = FileStatus::Of(file_);
  if (!status || status->bytes <= smallFileBytes) return false;
  const std::string line = FirstLine(mark_);
  if (line.empty()) return false;
  return line == OpenText(*status) || (line == ClosedText(*status) && !HasLog(file_));
}

void CleanMarker::NoteOpened() noexcept {
  try {
    if (const auto status = FileStatus::Of(file_)) Write(OpenText(*status));
  } catch (...) {
    Withdraw();
  }
}

void CleanMarker::NoteClosed() noexcept {
  try {
    const auto status = withdrawn_ ? std::nullopt : FileStatus::Of(file_);
    if (status) Write(ClosedText(*status));
  } catch (...) {
    Withdraw();
  }
}

void CleanMarker::Withdraw() noexcept {
  withdrawn_ = true;
  if (!file_.empty()) RemoveFile(mark_);
}

// A line truncated by a full disk vouches for nothing.
void CleanMarker::Write(const std::string& text) noexcept {
  File mark = File::Open(mark_, File::Mode::replace);
  if (!mark) return;
  const bool written = mark.Write(text) == text.size();
  mark.Close();
  if (!written) RemoveFile(mark_);
}

}  // namespace veld_report::host
