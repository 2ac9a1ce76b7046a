#include "host/queue/store_time.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>

#include "host/platform/file.h"

namespace veld_report::host {
namespace {

constexpr std::int64_t noteEveryMs = 60'000;
constexpr int noteBytes = 3 * 18 + 44 + 1;

struct Note {
  std::int64_t timeMs = 0;
  std::int64_t calendarMs = 0;
  std::int64_t uptimeMs = 0;
  std::string boot;
};

// Anything else comes from damage and would overflow.
bool IsPlausible(std::int64_t timeMs) { return std::abs(timeMs) < std::int64_t{1} << 53; }

bool ReadNote(const std::filesystem::path& path, Note* note) {
  std::ifstream file(SystemPath(path));
  return file >> note->timeMs >> note->calendarMs >> note->uptimeMs >> note->boot &&
         IsPlausible(note->timeMs) && IsPlausible(note->calendarMs) && IsPlausible(note->uptimeMs);
}

}  // namespace

StoreTime::StoreTime(const std::filesystem::path& store, std::chrono::milliseconds maxAge,
                     const std::function<std::optional<std::int64_t>()>& youngestMs,
                     std::shared_ptr<const MachineClock> machine)
    : file_(WithEnding(store, ".time")), machine_(std::move(machine)) {
  const std::int64_t uptimeMs = machine_->UptimeMs();
  const std::int64_t calendarMs = machine_->CalendarMs();
  const std::int64_t longestMs = maxAge.count() > 0 ? maxAge.count() / 2 : INT64_MAX;
  Note note;
  continued_ = ReadNote(file_, &note);
  std::int64_t nowMs = calendarMs;
  if (continued_ && note.boot == machine_->Boot() && note.uptimeMs <= uptimeMs) {
    nowMs = note.timeMs + uptimeMs - note.uptimeMs;
  } else if (continued_) {
    nowMs = note.timeMs + std::clamp<std::int64_t>(calendarMs - note.calendarMs, 0, longestMs);
  } else if (const auto lastMs = youngestMs(); lastMs && IsPlausible(*lastMs)) {
    nowMs = *lastMs + std::min(calendarMs - *lastMs, longestMs);
  }
  base_ = nowMs - uptimeMs;
}

void StoreTime::BeginNotes() noexcept {
  noting_ = true;
  WriteNote();
}

void StoreTime::WriteNote() noexcept {
  if (!noting_) return;
  const std::int64_t uptimeMs = machine_->UptimeMs();
  notedMs_ = uptimeMs;
  // Always as long, so that it replaces what is there in one write, whoever else writes it.
  std::array<char, noteBytes + 1> line{};
  const std::string_view boot = machine_->Boot();
  const std::int64_t storeMs = base_ + uptimeMs;
  const int length =
      std::snprintf(line.data(), line.size(), "%17lld %17lld %17lld %-44.*s\n",
                    static_cast<long long>(storeMs), static_cast<long long>(machine_->CalendarMs()),
                    static_cast<long long>(uptimeMs), static_cast<int>(boot.size()), boot.data());
  if (length != noteBytes) return;
  File file = File::Open(file_, File::Mode::write);
  if (file) file.WriteAt({line.data(), noteBytes}, 0);
}

void StoreTime::WriteNoteIfDue() noexcept {
  if (machine_->UptimeMs() - noteEveryMs >= notedMs_) WriteNote();
}

}  // namespace veld_report::host
